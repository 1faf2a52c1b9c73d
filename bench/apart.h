#ifndef BENCH_APART_H
#define BENCH_APART_H

#include <sys/wait.h>
#include <unistd.h>

#include "require.h"

#include <type_traits>

namespace bench {

/// Runs `measure` in a process of its own, which starts with one thread and nothing warmed up, and answers what it
/// answered: what one measurement leaves behind does not slow the next.
template <class Measure>
auto apart(Measure&& measure)
{
    using Result = decltype(measure());
    static_assert(std::is_trivially_copyable_v<Result>);
    int ends[2];
    require(::pipe(ends) == 0, "pipe");
    const pid_t pid = ::fork();
    require(pid >= 0, "fork");
    if (pid == 0) {
        ::close(ends[0]);
        const Result result = measure();
        require(::write(ends[1], &result, sizeof result) == sizeof result, "hand over the result");
        ::_exit(0);
    }
    ::close(ends[1]);
    Result result{};
    const bool hasResult = ::read(ends[0], &result, sizeof result) == sizeof result;
    ::close(ends[0]);
    int status = 0;
    require(::waitpid(pid, &status, 0) == pid && status == 0 && hasResult, "measurement in a process of its own");
    return result;
}

} // namespace bench

#endif
