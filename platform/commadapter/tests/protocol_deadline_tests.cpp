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
    Machine client(Role::eCLIENT, helloOf("client"), {}, recorder, 10 * SECOND);
    EXPECT_FALSE(client.output.expired(13 * SECOND - 1, why));
    EXPECT_TRUE(client.output.expired(13 * SECOND, why));
    client.output.restartDeadlines(20 * SECOND);
    EXPECT_EQ(client.output.nextDeadline(), 23 * SECOND);
    EXPECT_FALSE(client.output.expired(22 * SECOND, why));
}

TEST(ProtocolDeadline, APeerThatTakesALongQueueIsNotJudgedBeforeThePingHasLeft)
{
    Pair pair;
    std::string why;
    ASSERT_EQ(pair.client.output.request(1, 1, Request("update", "/", large(60000))), Sent::eQUEUED);
    pair.client.output.probe(20 * SECOND);
    iovec out[4];
    ASSERT_GT(pair.client.output.gather(out), 0U);
    pair.client.output.sent(1000, 24 * SECOND);
    EXPECT_EQ(pair.client.output.nextDeadline(), 29 * SECOND);
    EXPECT_TRUE(pair.client.output.expired(29 * SECOND, why)) << "nothing moved since";
}

} // namespace
} // namespace kesa::commadapter::protocol
