// Processes that stand still. Nobody is judged by silence alone, only when something is owed.

#include "SystemTest.h"

#include <csignal>

namespace kesa::system_test {
namespace {

using namespace std::chrono_literals;

const std::string PLAYER = "ipc://media/player";

using SystemSilence = SystemTest;

TEST_F(SystemSilence, AnIdleProviderMayStandStill)
{
    Process& provider = startProvider("media", "/player", {.comm = R"({"heartbeat_ms": 100})"});
    Process& watcher = startFollower("watcher", PLAYER, {.comm = R"({"heartbeat_ms": 100})"});
    provider.stop();
    watcher.expectQuiet(1200ms);
    provider.resume();
    provider.send("feed 1");
    watcher.expect("value " + PLAYER + "#1 1");
    watcher.send("call after " + PLAYER + " /echo");
    watcher.expect("completed after");
}

TEST_F(SystemSilence, AnAnswerThatIsOwedByAProviderThatStandsStillEndsTheConnection)
{
    startBystanders();
    Process& provider = startProvider("media", "/player");
    Process& watcher = startFollower("watcher", PLAYER, {.comm = R"({"heartbeat_ms": 400})"});
    // A service may take its time: its process answers the pings.
    watcher.send("call owed " + PLAYER + " /hang single-response");
    watcher.expect("issued owed");
    watcher.expectQuiet(1200ms);

    provider.stop();
    EXPECT_NE(watcher.expect("error owed 503").find("silent for 400 ms after a ping"), std::string::npos);
    watcher.expect("error " + PLAYER + "#1 503");
    watcher.expect("lost " + PLAYER);
    expectUndisturbed();

    provider.resume();
    watcher.expect("connected " + PLAYER);
    watcher.expect("value " + PLAYER + "#2 0");
    watcher.send("call after " + PLAYER + " /echo single-response");
    watcher.expect("completed after");
    expectUndisturbed();
}

// While the provider stands still, connections to it are made but not answered.
TEST_F(SystemSilence, AProviderThatStandsStillIsFoundWhenItGoesOn)
{
    Process& provider = startProvider("media", "/player");
    provider.stop();
    Process& watcher = start("watcher");
    watcher.send("resolve " + PLAYER);
    watcher.expectTrace("no hello within 3000 ms");
    provider.resume();
    watcher.expect("connected " + PLAYER);
}

TEST_F(SystemSilence, AClientThatStandsStillLosesItsStreamAndNobodyElseDoes)
{
    constexpr int BYTES = 30000;
    Process& provider =
        startProvider("media", "/player", {.comm = R"({"send_queue_bytes": 65536, "heartbeat_ms": 600000})"});
    startBystander(PLAYER);
    Process& slow = startFollower("slow", PLAYER);
    Process& other = startFollower("other", PLAYER);
    slow.send("call hanging " + PLAYER + " /hang");
    slow.expect("issued hanging");
    slow.stop();
    std::string fed;
    int rounds = 0;
    do {
        provider.send("feed " + std::to_string(BYTES));
        fed = provider.expect("fed");
        other.expect("value " + PLAYER + "#1 " + std::to_string(++rounds));
    } while (fed == "2 0" && rounds < 1000);
    EXPECT_EQ(fed, "1 1");
    provider.send("feed " + std::to_string(BYTES));
    EXPECT_EQ(provider.expect("fed"), "1 0");
    expectUndisturbed();

    slow.resume();
    EXPECT_EQ(slow.expect("error " + PLAYER + "#1"), "503 too slow");
    slow.send("follow " + PLAYER);
    slow.expect("value " + PLAYER + "#2 0");
    for (const std::string& event : slow.history()) {
        EXPECT_EQ(event.find("lost"), std::string::npos) << "only the stream ends, not the connection";
    }
    slow.send("cancel hanging");
    slow.expect("cancelled hanging");
    expectUndisturbed();
}

// A queue that does not move makes the provider ask; a client that does not answer is not served any more.
TEST_F(SystemSilence, AClientThatStandsStillForLongIsCutOff)
{
    Process& provider =
        startProvider("media", "/player", {.comm = R"({"send_queue_bytes": 65536, "heartbeat_ms": 300})"});
    startBystander(PLAYER);
    Process& slow = startFollower("slow", PLAYER);
    slow.stop();
    for (std::string fed; fed != "0 1";) {
        provider.send("feed 30000");
        fed = provider.expect("fed");
    }
    provider.expectTrace("'slow (process " + std::to_string(slow.pid()) +
                         ")' has ended: silent for 300 ms after a ping");
    expectUndisturbed();
    slow.resume();
    slow.expect("lost " + PLAYER);
    slow.expect("connected " + PLAYER);
    slow.expect("value " + PLAYER + "#2 0");
}

} // namespace
} // namespace kesa::system_test
