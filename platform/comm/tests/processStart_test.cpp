// When processes began, as the kernel tells it.

#include <comm/processStart.h>
#include <comm/wallClock.h>

#include <gtest/gtest.h>

#include <unistd.h>

namespace comm {
namespace {

TEST(ProcessStart, IsBeforeNowAndAfterThatOfTheParentAndUnknownForNobody)
{
    constexpr TimeNs TICK = SECOND / 50; // the kernel's own, and that of rounding
    const TimeNs start = processStart(::getpid());
    EXPECT_GE(start, processStart(::getppid()) - TICK);
    EXPECT_LE(start, wallClock() + TICK);
    EXPECT_EQ(processStart(-1), 0);
}

} // namespace
} // namespace comm
