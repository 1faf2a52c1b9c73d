#include "SystemTest.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

namespace kesa::system_test {

namespace fs = std::filesystem;

namespace {

/// What is wrong with the events an actor told; empty when nothing is. The simulation has the finer rules.
std::string complaintAbout(const std::vector<std::string>& events)
{
    std::map<std::string, bool> isConnected;
    std::map<std::string, bool> isOpen;
    for (const std::string& event : events) {
        std::istringstream words(event);
        std::string kind;
        std::string subject;
        words >> kind >> subject;
        const bool isEnd = kind == "error" || kind == "completed";
        bool isWrong = false;
        if (kind == "connected" || kind == "lost") {
            isWrong = std::exchange(isConnected[subject], kind == "connected") == (kind == "connected");
            for (const auto& [stream, open] : isOpen) { // ends come before the next connection
                isWrong = isWrong || (kind == "connected" && open && stream.starts_with(subject + '#'));
            }
        } else if (kind == "cancelled") { // it may have ended before
            isOpen[subject] = false;
        } else if (kind == "issued" || kind == "value" || isEnd) {
            isWrong = std::exchange(isOpen[subject], !isEnd) == (kind == "issued");
        }
        if (isWrong) {
            return "\"" + event + "\" may not come here";
        }
    }
    return {};
}

} // namespace

SystemTest::SystemTest()
{
    std::string pattern = (fs::temp_directory_path() / "kesa-system-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("no directory like " + pattern);
    }
    m_directory = pattern;
    m_runDirectory = m_directory + "/run";
    ::chmod(m_directory.c_str(), 0755); // for nobody
    ::signal(SIGPIPE, SIG_IGN);         // writing to a process that has died is for the test to notice
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

SystemTest::~SystemTest()
{
    m_processes.clear();
    // What is left are their children, which have come to the test.
    std::ifstream children("/proc/thread-self/children");
    for (pid_t child = 0; children >> child;) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    std::error_code ignored;
    fs::remove_all(m_directory, ignored);
}

void SystemTest::check(Process& process)
{
    std::string complaint = complaintAbout(process.history());
    if (process.traces().find("Sanitizer") != std::string::npos) {
        complaint = "a sanitizer complains";
    } else if (process.hasCrashed()) {
        complaint = "it crashed";
    }
    if (!complaint.empty() && !HasFailure()) {
        ADD_FAILURE() << process.name() << ": " << complaint << "\nIt told:\n"
                      << testing::PrintToString(process.history()) << "\nIts traces:\n"
                      << process.traces();
    }
}

void SystemTest::TearDown()
{
    for (Process& process : m_processes) {
        check(process);
    }
}

void SystemTest::expectQuiet(Process& actor)
{
    for (const char* const bad : {"refused", "broken", "failed", "not started", "unknown"}) {
        EXPECT_EQ(actor.findUnexpected(bad), "") << actor.name() << " told this\n" << actor.traces();
    }
}

void SystemTest::discard(Process& process)
{
    check(process);
    std::error_code ignored;
    fs::remove(process.traceFile(), ignored);
    m_processes.remove_if([&process](const Process& other) { return &other == &process; });
}

Process& SystemTest::launchProgram(const std::string& name, const std::vector<std::string>& arguments,
                                   const Options& options)
{
    const std::string document = m_directory + '/' + std::to_string(m_documents++) + ".json";
    std::ofstream file(document);
    file << R"({"use_registry": )" << (options.document == Options::Document::eWITH_REGISTRY ? "true" : "false")
         << R"(, "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]}, "backends": ["comm"], "comm": )"
         << options.comm << R"(, "services": [)";
    const char* separator = "";
    for (const std::string& service : options.services) {
        const std::size_t path = service.find('/', service.find("://") + 3);
        file << separator << R"({"path": ")" << service.substr(path) << R"(", "type": "pex", "version": "1.0.0", )"
             << R"("locators": [")" << service.substr(0, path) << R"("]})";
        separator = ", ";
    }
    file << "]}\n";
    file.close();
    std::vector<std::string> environment{"KESA_RUN_DIR=" + m_runDirectory, "KESA_TRACE_SINK=stderr",
                                         "KESA_TRACE=" + options.trace};
    if (options.document != Options::Document::eNONE) {
        environment.push_back("KESA_CONFIG=" + document);
    }
    return m_processes.emplace_back(Process::Setup{name, arguments, environment, m_directory, options.isNobody});
}

Process& SystemTest::launch(const std::string& process, const Options& options)
{
    return launchProgram(process, {KESA_SYSTEM_ACTOR, process}, options);
}

Process& SystemTest::launchRegistry(const Options& options)
{
    return launchProgram("kesa-registryd", {KESA_REGISTRYD}, options);
}

Process& SystemTest::startRegistry()
{
    Process& registry = launchRegistry();
    registry.expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
    return registry;
}

Process& SystemTest::start(const std::string& process, const Options& options)
{
    Process& started = launch(process, options);
    started.expect("started");
    return started;
}

Process& SystemTest::startProvider(const std::string& process, const std::string& path, const Options& options)
{
    Process& provider = start(process, options);
    provider.send("provide " + path);
    provider.expect("provided " + path);
    return provider;
}

Process& SystemTest::startClient(const std::string& process, const std::string& service, const Options& options)
{
    Process& client = start(process, options);
    client.send("resolve " + service);
    client.expect("connected " + service);
    return client;
}

Process& SystemTest::startFollower(const std::string& process, const std::string& service, const Options& options)
{
    Process& follower = startClient(process, service, options);
    follower.send("follow " + service);
    follower.expect("value " + service + "#1 0");
    return follower;
}

void SystemTest::startBystander(const std::string& locator)
{
    m_bystander = &startClient("bystander", locator);
    m_bystanderCall = ' ' + locator + " /echo";
    expectUndisturbed();
}

void SystemTest::startBystanders()
{
    startProvider("standby", "/standby");
    startBystander("ipc://standby/standby");
}

void SystemTest::expectUndisturbed()
{
    for (int count = 0; count < 20; ++count) {
        const std::string call = "call-" + std::to_string(++m_bystanderCalls);
        m_bystander->send("call " + call + m_bystanderCall);
        m_bystander->expect("value " + call + " echo");
    }
    for (const std::string& event : m_bystander->history()) {
        EXPECT_FALSE(event.starts_with("lost")) << "the bystander was disturbed";
    }
}

bool SystemTest::isInRunDirectory(const std::string& file) const
{
    return fs::symlink_status(m_runDirectory + '/' + file).type() != fs::file_type::not_found;
}

} // namespace kesa::system_test
