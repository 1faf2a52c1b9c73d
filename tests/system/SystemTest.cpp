#include "SystemTest.h"

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace kesa::system_test {

void SystemTest::check(Process& process)
{
    const std::string complaint = complaintAbout(process);
    if (!complaint.empty() && !HasFailure()) {
        ADD_FAILURE() << complaint;
    }
}

void SystemTest::TearDown()
{
    for (Process& process : processes()) {
        check(process);
    }
}

void SystemTest::expectQuiet(Process& actor)
{
    EXPECT_EQ(actor.findBad(), "") << actor.name() << " told this\n" << actor.traces();
}

bool SystemTest::canOthersRunActors()
{
    namespace fs = std::filesystem;
    bool isOpen = true;
    for (fs::path place = KESA_SYSTEM_ACTOR; place != place.root_path(); place = place.parent_path()) {
        isOpen = isOpen && (fs::status(place).permissions() & fs::perms::others_exec) != fs::perms::none;
    }
    return isOpen;
}

std::string SystemTest::whyNoOtherUsers()
{
    return ::geteuid() != 0        ? "only root has processes of other users"
           : !canOthersRunActors() ? "other users may not run the actor where it was built"
                                   : "";
}

void SystemTest::discard(Process& process)
{
    check(process);
    Stage::discard(process);
}

Process& SystemTest::startRegistry()
{
    Process& registry = launchRegistry();
    registry.expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
    return registry;
}

SystemTest::Printed SystemTest::runTool(const std::vector<std::string>& words, const Options& options)
{
    Process& tool = launchTool(words, options);
    Printed printed{WEXITSTATUS(tool.expectEnd()), {}, tool.traces()};
    for (const std::string& line : tool.history()) {
        printed.text += line + '\n';
    }
    discard(tool);
    return printed;
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

} // namespace kesa::system_test
