#include "Stage.h"

#include "actor/complaintAbout.h"
#include "actor/document.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kesa::system_test {

namespace fs = std::filesystem;

Stage::Stage()
{
    ::chmod(m_directory.path().c_str(), 0755); // for nobody
    ::signal(SIGPIPE, SIG_IGN);                // writing to a process that has died is for the test to notice
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
}

Stage::~Stage()
{
    m_processes.clear();
    // What is left are their children, which have come to the test.
    std::ifstream children("/proc/thread-self/children");
    for (pid_t child = 0; children >> child;) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

std::string Stage::complaintAbout(Process& process)
{
    std::string complaint = actor::complaintAbout(process.history());
    if (process.traces().find("Sanitizer") != std::string::npos) {
        complaint = "a sanitizer complains";
    } else if (process.hasCrashed()) {
        complaint = "it crashed";
    }
    if (complaint.empty()) {
        return complaint;
    }
    std::string report = process.name() + ": " + complaint + "\nIt told:\n";
    for (const std::string& event : process.history()) {
        report += "  " + event + '\n';
    }
    return report + "Its traces:\n" + process.traces();
}

void Stage::discard(Process& process)
{
    std::error_code ignored;
    fs::remove(process.traceFile(), ignored);
    m_processes.remove_if([&process](const Process& other) { return &other == &process; });
}

Process& Stage::launchProgram(const std::string& name, const std::vector<std::string>& arguments,
                              const Options& options)
{
    std::string file = options.document;
    if (file.empty()) {
        file = pathOf(std::to_string(m_documents++) + ".json");
        std::ofstream(file) << actor::document(options.hasRegistry, options.services, options.comm, options.access);
    }
    const std::vector<std::string> environment{"KESA_RUN_DIR=" + m_runDirectory, "KESA_TRACE_SINK=stderr",
                                               "KESA_TRACE=" + options.trace, "KESA_CONFIG=" + file};
    return m_processes.emplace_back(Process::Setup{name, arguments, environment, m_directory.path(), options.user});
}

Process& Stage::launch(const std::string& process, const Options& options)
{
    return launchProgram(process, {KESA_SYSTEM_ACTOR, process}, options);
}

Process& Stage::launchRegistry(const Options& options)
{
    return launchProgram("kesa-registryd", {KESA_REGISTRYD}, options);
}

Process& Stage::launchTool(const std::vector<std::string>& words, const Options& options)
{
    std::vector<std::string> arguments{KESACTL};
    arguments.insert(arguments.end(), words.begin(), words.end());
    return launchProgram("kesactl", arguments, options);
}

bool Stage::isInRunDirectory(const std::string& file) const
{
    return fs::symlink_status(m_runDirectory + '/' + file).type() != fs::file_type::not_found;
}

} // namespace kesa::system_test
