// The pair of examples, as a user starts them: in either order, with a death in between.

#include "SystemTest.h"

#include <csignal>

namespace kesa::system_test {
namespace {

class SystemDemo : public SystemTest {
protected:
    Process& startMonitor() { return launchProgram("system-monitor", {KESA_SYSTEM_MONITOR}, {}); }
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

TEST_F(SystemDemo, EitherMayComeFirst)
{
    const auto startWatch = [this]() -> Process& {
        return launchProgram("system-watch", {KESA_SYSTEM_WATCH, "/proc/self/fd/1"},
                             {.services = {"ipc://system-monitor/system/memory", "ipc://system-monitor/system/load"}});
    };
    Process& early = startWatch();
    early.expectTrace("no process listens as \"system-monitor\"");
    Process& monitor = startMonitor();
    expectEach(early, {"connected", "answer", "value", "value"});
    monitor.kill();
    expectEach(early, {"lost"});
    Process& again = startMonitor();
    again.expect("/system/load at");
    Process& late = startWatch();
    for (Process* const watch : {&early, &late}) {
        expectEach(*watch, {"connected", "answer", "value", "value"});
    }
    expectOrderlyEnd(again);
    expectEach(late, {"lost"});
    expectOrderlyEnd(late);
    expectOrderlyEnd(early);
    EXPECT_FALSE(isInRunDirectory("system-monitor.sock"));
}

} // namespace
} // namespace kesa::system_test
