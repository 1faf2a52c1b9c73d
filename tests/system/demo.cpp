// The examples and the registry's program, as a user starts them: without a configuration, in any order, with deaths in
// between.

#include "SystemTest.h"

#include <csignal>

namespace kesa::system_test {
namespace {

const Options NO_DOCUMENT{.document = Options::Document::eNONE};

class SystemDemo : public SystemTest {
protected:
    Process& startRegistry()
    {
        Process& registry = launchProgram("kesa-registryd", {KESA_REGISTRYD}, NO_DOCUMENT);
        registry.expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
        return registry;
    }
    Process& startMonitor() { return launchProgram("system-monitor", {KESA_SYSTEM_MONITOR}, NO_DOCUMENT); }
    Process& startWatch() { return launchProgram("system-watch", {KESA_SYSTEM_WATCH, "/proc/self/fd/1"}, NO_DOCUMENT); }
    static void expectEach(Process& watch, const std::vector<std::string>& events)
    {
        for (const std::string& event : events) {
            for (const char* const path : {R"("/system/memory")", R"("/system/load")"}) {
                watch.expectLineWith(path, '"' + event + '"');
            }
        }
    }
    static void expectOrderlyEnd(Process& process)
    {
        process.signal(SIGTERM);
        EXPECT_EQ(process.expectEnd(), 0) << process.name();
    }
};

TEST_F(SystemDemo, AnyMayComeFirstAndDie)
{
    const std::vector<std::string> ALL = {"connected", "answer", "value", "value"};
    Process& early = startWatch();
    early.expectTrace("'ipc://kesa-registryd' is not connected");
    Process& monitor = startMonitor();
    Process& registry = startRegistry();
    expectEach(early, ALL);

    monitor.kill();
    expectEach(early, {"lost"});
    Process& again = startMonitor();
    again.expect("/system/load");
    Process& late = startWatch();
    expectEach(early, ALL);
    expectEach(late, ALL);

    registry.kill();
    expectEach(early, {"lost"});
    Process& registryAgain = startRegistry();
    expectEach(early, ALL);
    expectEach(late, {"lost"});
    expectEach(late, ALL);

    expectOrderlyEnd(again);
    expectEach(late, {"lost"});
    for (Process* const process : {&late, &early, &registryAgain}) {
        expectOrderlyEnd(*process);
    }
    EXPECT_FALSE(isInRunDirectory("system-monitor.sock"));
    EXPECT_FALSE(isInRunDirectory("kesa-registryd.sock"));
}

} // namespace
} // namespace kesa::system_test
