// When a peer is taken for dead, where backends do not see it: time comes from the arguments alone.

#include "protocol_support.h"

#include <gtest/gtest.h>

namespace kesa::commadapter::protocol {
namespace {

using namespace testing;
using comm::SECOND;

TEST(ProtocolDeadline, ALoopThatSleptGivesThePeerTheTimeForItsHelloAnew)
{
    Recorder recorder;
    std::string why;
    Machine client(Machine::Role::eCLIENT, helloOf("client"), {}, recorder, 10 * SECOND);
    EXPECT_FALSE(client.expired(13 * SECOND - 1, why));
    EXPECT_TRUE(client.expired(13 * SECOND, why));
    client.restartDeadlines(20 * SECOND);
    EXPECT_EQ(client.nextDeadline(), 23 * SECOND);
    EXPECT_FALSE(client.expired(22 * SECOND, why));
}

TEST(ProtocolDeadline, APeerThatTakesALongQueueIsNotJudgedBeforeThePingHasLeft)
{
    Pair pair;
    std::string why;
    ASSERT_EQ(pair.client.request(1, 1, Request("update", "/", large(60000))), Machine::Sent::eQUEUED);
    pair.client.probe(20 * SECOND);
    iovec out[4];
    ASSERT_GT(pair.client.gather(out), 0U);
    pair.client.sent(1000, 24 * SECOND);
    EXPECT_EQ(pair.client.nextDeadline(), 29 * SECOND);
    EXPECT_TRUE(pair.client.expired(29 * SECOND, why)) << "nothing moved since";
}

} // namespace
} // namespace kesa::commadapter::protocol
