// When processes began, and whether they are stopped, as the kernel tells it.

#include <comm/processStart.h>
#include <comm/wallClock.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

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

TEST(ProcessStop, IsSeenFromOutside)
{
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    EXPECT_FALSE(isProcessStopped(child));
    ::kill(child, SIGSTOP);
    ::waitpid(child, nullptr, WUNTRACED);
    EXPECT_TRUE(isProcessStopped(child));
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(isProcessStopped(child));
}

} // namespace
} // namespace comm
