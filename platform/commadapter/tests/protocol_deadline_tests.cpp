// When a peer is taken for dead: no hello, or nothing at all after a ping. Time comes from the arguments alone.

#include "protocol_support.h"

#include <gtest/gtest.h>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;
using comm::SECOND;

class ProtocolDeadline : public ::testing::Test {
protected:
    void hear(comm::TimeNs now)
    {
        server.ping();
        const Bytes bytes = takeAll(server);
        const std::span<unsigned char> room = client.inputBuffer();
        std::copy(bytes.begin(), bytes.end(), room.begin());
        ASSERT_FALSE(client.received(bytes.size(), now));
    }

    Recorder recorder;
    std::string why;
    Machine client{Machine::Role::eCLIENT, helloOf("client"), {}, recorder, 10 * SECOND};
    Machine server{Machine::Role::eSERVER, helloOf("server"), {}, recorder, 10 * SECOND};
};

TEST_F(ProtocolDeadline, aPeerSaysHelloInTime)
{
    EXPECT_EQ(client.nextDeadline(), 13 * SECOND);
    EXPECT_FALSE(client.expired(13 * SECOND - 1, why));
    EXPECT_TRUE(client.expired(13 * SECOND, why));
    EXPECT_EQ(why, "no hello within 3000 ms");
    client.restartDeadlines(20 * SECOND); // the loop slept
    EXPECT_FALSE(client.expired(22 * SECOND, why));
    hear(22 * SECOND);
    EXPECT_EQ(client.nextDeadline(), comm::NEVER);
    EXPECT_EQ(client.lastReceived(), 22 * SECOND);
}

TEST_F(ProtocolDeadline, aProbedPeerSaysSomethingInTime)
{
    hear(10 * SECOND);
    takeAll(client);
    client.probe(20 * SECOND);
    client.probe(21 * SECOND);
    EXPECT_EQ(take(client).size(), 16U) << "one is under way";
    EXPECT_FALSE(client.expired(25 * SECOND - 1, why));
    EXPECT_TRUE(client.expired(25 * SECOND, why));
    EXPECT_EQ(why, "silent for 5000 ms after a ping");

    hear(20 * SECOND); // in the instant of the probe, but after it
    EXPECT_FALSE(client.expired(25 * SECOND, why));
    EXPECT_EQ(client.nextDeadline(), comm::NEVER);
    client.probe(30 * SECOND);
    EXPECT_EQ(client.nextDeadline(), 35 * SECOND);
    client.restartDeadlines(40 * SECOND);
    EXPECT_EQ(client.nextDeadline(), 45 * SECOND);
}

TEST_F(ProtocolDeadline, aPeerThatTakesALongQueueIsNotJudgedBeforeThePingHasLeft)
{
    hear(10 * SECOND);
    takeAll(client);
    ASSERT_EQ(client.request(1, 1, Request("update", "/", large(60000))), Machine::Sent::eQUEUED);
    client.probe(20 * SECOND);
    iovec out[4];
    ASSERT_GT(client.gather(out), 0U);
    client.sent(1000, 24 * SECOND);
    EXPECT_EQ(client.nextDeadline(), 29 * SECOND);
    EXPECT_TRUE(client.expired(29 * SECOND, why)) << "nothing moved since";
    EXPECT_EQ(client.lastSent(), 24 * SECOND);
}

} // namespace
} // namespace kesa::commadapter::protocol
