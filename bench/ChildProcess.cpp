#include "ChildProcess.h"

#include "clocks.h"
#include "require.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

namespace bench {

ChildProcess::ChildProcess(const Body& body)
{
    int ends[2];
    require(::pipe(ends) == 0, "pipe");
    m_pid = ::fork();
    require(m_pid >= 0, "fork");
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[0]);
        body([&ends] { require(::write(ends[1], "r", 1) == 1, "tell the parent"); });
        ::_exit(0);
    }
    ::close(ends[1]);
    char byte = 0;
    require(::read(ends[0], &byte, 1) == 1, "start of the other process");
    ::close(ends[0]);
}

ChildProcess::~ChildProcess()
{
    ::kill(m_pid, SIGKILL);
    ::waitpid(m_pid, nullptr, 0);
}

std::int64_t ChildProcess::cpuNs() const noexcept
{
    clockid_t clock{};
    return ::clock_getcpuclockid(m_pid, &clock) == 0 ? readClock(clock) : 0;
}

} // namespace bench
