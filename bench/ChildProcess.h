#ifndef BENCH_CHILDPROCESS_H
#define BENCH_CHILDPROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace bench {

/// The other process of a benchmark: a forked child that runs a function and ends with it, or a program.
class ChildProcess {
public:
    /// The child calls `ready` once it can be used; the constructor returns then. Fork before threads are started
    /// that the child could miss.
    using Body = std::function<void(const std::function<void()>& ready)>;
    explicit ChildProcess(const Body& body);
    /// A program, which can be used once it has written to its standard output.
    explicit ChildProcess(const std::string& program);
    /// Sends it SIGKILL; the destructor waits for its end.
    void kill() const noexcept;
    /// Kills the child if it is still there, and waits for its end.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const noexcept { return m_pid; }
    /// The CPU time it has used so far.
    std::int64_t cpuNs() const noexcept;

private:
    /// The first byte written to the descriptor says that the child can be used.
    explicit ChildProcess(const std::function<void(int ready)>& run);

    pid_t m_pid = -1;
};

/// For a child that serves until it is killed.
[[noreturn]] void pauseForEver();

} // namespace bench

#endif
