// When processes began, and whether they are stopped or ending, as the kernel tells it.

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
    EXPECT_FALSE(isProcessEnding(child));
    ::kill(child, SIGKILL);
    siginfo_t ended{};
    ::waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    EXPECT_TRUE(isProcessEnding(child)) << "until somebody has asked how it ended";
    ::waitpid(child, nullptr, 0);
    EXPECT_FALSE(isProcessStopped(child));
    EXPECT_FALSE(isProcessEnding(child));
}

} // namespace
} // namespace comm
