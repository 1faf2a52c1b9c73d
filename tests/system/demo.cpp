// The pair of examples, as a user starts them: in either order, with a death in between.

#include "SystemTest.h"

#include <sys/wait.h>

#include <csignal>

namespace kesa::system_test {
namespace {

class SystemDemo : public SystemTest {
protected:
    Process& startMonitor() { return launchProgram("system-monitor", {KESA_SYSTEM_MONITOR}, {}); }
    Process& startWatch()
    {
        return launchProgram("system-watch", {KESA_SYSTEM_WATCH, "/proc/self/fd/1"},
                             {.services = {"ipc://system-monitor/system/memory", "ipc://system-monitor/system/load"}});
    }
    static void expectEach(Process& watch, const std::string& event)
    {
        for (const char* const path : {R"("/system/memory")", R"("/system/load")"}) {
            watch.expectLineWith({path, '"' + event + '"'});
        }
    }
    static void expectOrderlyEnd(Process& process)
    {
        process.signal(SIGTERM);
        EXPECT_EQ(process.expectEnd(), 0) << process.name();
    }
};

TEST_F(SystemDemo, TheWatcherMayComeFirst)
{
    Process& watch = startWatch();
    watch.expectTrace("no process listens as \"system-monitor\"");
    Process& monitor = startMonitor();
    for (const char* const event : {"connected", "answer", "value", "value"}) {
        expectEach(watch, event);
    }
    monitor.kill();
    expectEach(watch, "lost");
    Process& again = startMonitor();
    for (const char* const event : {"connected", "answer", "value", "value", "value"}) {
        expectEach(watch, event);
    }
    expectOrderlyEnd(watch);
    expectOrderlyEnd(again);
    EXPECT_FALSE(isInRunDirectory("system-monitor.sock"));
}

TEST_F(SystemDemo, TheMonitorMayComeFirst)
{
    Process& monitor = startMonitor();
    monitor.expect("/system/load at");
    Process& watch = startWatch();
    for (const char* const event : {"connected", "answer", "value", "value"}) {
        expectEach(watch, event);
    }
    expectOrderlyEnd(monitor);
    expectEach(watch, "lost");
    expectOrderlyEnd(watch);
}

} // namespace
} // namespace kesa::system_test
