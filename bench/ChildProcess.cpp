#include "ChildProcess.h"

#include "clocks.h"
#include "require.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <ctime>

namespace bench {

namespace {

/// In the child.
void runProgram(const std::string& program, int output)
{
    require(::dup2(output, STDOUT_FILENO) >= 0, "standard output");
    ::execl(program.c_str(), program.c_str(), nullptr);
    require(false, program.c_str());
}

} // namespace

ChildProcess::ChildProcess(const std::function<void(int ready)>& run)
{
    int ends[2];
    require(::pipe2(ends, O_CLOEXEC) == 0, "pipe");
    m_pid = ::fork();
    require(m_pid >= 0, "fork");
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[0]);
        run(ends[1]);
        ::_exit(0);
    }
    ::close(ends[1]);
    char byte = 0;
    require(::read(ends[0], &byte, 1) == 1, "start of the other process");
    ::close(ends[0]);
}

ChildProcess::ChildProcess(const Body& body)
    : ChildProcess(std::function<void(int)>(
          [&body](int ready) { body([ready] { require(::write(ready, "r", 1) == 1, "tell the parent"); }); }))
{}

ChildProcess::ChildProcess(const std::string& program)
    : ChildProcess(std::function<void(int)>([&program](int ready) { runProgram(program, ready); }))
{}

ChildProcess::~ChildProcess()
{
    kill();
    ::waitpid(m_pid, nullptr, 0);
}

void ChildProcess::kill() const noexcept
{
    ::kill(m_pid, SIGKILL);
}

std::int64_t ChildProcess::cpuNs() const noexcept
{
    clockid_t clock{};
    return ::clock_getcpuclockid(m_pid, &clock) == 0 ? readClock(clock) : 0;
}

void pauseForEver()
{
    while (true) {
        ::pause();
    }
}

} // namespace bench
