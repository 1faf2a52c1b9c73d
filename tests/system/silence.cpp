// A client that stands still: the kernel's buffers decide when its queue is full. The scenarios have the other way
// round.

#include "SystemTest.h"

namespace kesa::system_test {
namespace {

using SystemSilence = SystemTest;

TEST_F(SystemSilence, AClientThatStandsStillLosesItsStreamAndNobodyElseDoes)
{
    Process& provider =
        startProvider("media", "/player", {.comm = R"({"send_queue_bytes": 65536, "heartbeat_ms": 600000})"});
    startBystander(PLAYER);
    Process& slow = startFollower("slow", PLAYER);
    Process& other = startFollower("other", PLAYER);
    slow.stop();
    std::string fed;
    int rounds = 0;
    do {
        provider.send("feed 30000");
        fed = provider.expect("fed");
        other.expect("value " + PLAYER + "#1 " + std::to_string(++rounds));
    } while (fed == "2 0" && rounds < 1000);
    EXPECT_EQ(fed, "1 1");
    expectUndisturbed();

    slow.resume();
    EXPECT_EQ(slow.expect("error " + PLAYER + "#1"), "503 too slow");
    slow.send("follow " + PLAYER); // over the connection of before
    slow.expect("value " + PLAYER + "#2 0");
    for (const std::string& event : slow.history()) {
        EXPECT_EQ(event.find("lost"), std::string::npos) << "only the stream ends, not the connection";
    }
}

} // namespace
} // namespace kesa::system_test
