// How much each peer can have traced.

#include <comm/PeerLines.h>

#include <gtest/gtest.h>

namespace comm {
namespace {

TEST(PeerLines, APeerGetsSoManyASecondAndTheRestIsCounted)
{
    PeerLines lines;
    for (unsigned line = 1; line < PeerLines::LINES; ++line) {
        EXPECT_EQ(lines.pass(7, 0), "");
    }
    EXPECT_EQ(lines.pass(7, 0), "; more because of process 7 are suppressed for a second");
    EXPECT_EQ(lines.pass(7, 0), std::nullopt);
    EXPECT_EQ(lines.pass(7, SECOND - 1), std::nullopt);
    EXPECT_EQ(lines.pass(8, SECOND - 1), "") << "another one's";
    EXPECT_EQ(lines.pass(7, SECOND), "; 2 more because of process 7 suppressed");
    EXPECT_EQ(lines.pass(7, SECOND), "");
}

TEST(PeerLines, VeryManyPeersShareWhatIsLeft)
{
    PeerLines lines;
    unsigned passed = 0;
    for (std::int64_t pid = 1; pid < 1000; ++pid) {
        passed += lines.pass(pid, 0) ? 1U : 0U;
    }
    EXPECT_EQ(passed, 100 + PeerLines::LINES);
    EXPECT_EQ(lines.pass(5000, SECOND), "") << "the accounts of the second before are free";
}

} // namespace
} // namespace comm
