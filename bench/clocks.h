#ifndef BENCH_CLOCKS_H
#define BENCH_CLOCKS_H

#include <cstdint>
#include <ctime>

namespace bench {

/// Nanoseconds of one of the kernel's clocks.
inline std::int64_t readClock(clockid_t clock) noexcept
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

inline std::int64_t wallNs() noexcept
{
    return readClock(CLOCK_MONOTONIC);
}

/// CPU time of the whole process.
inline std::int64_t processCpuNs() noexcept
{
    return readClock(CLOCK_PROCESS_CPUTIME_ID);
}

inline std::int64_t threadCpuNs() noexcept
{
    return readClock(CLOCK_THREAD_CPUTIME_ID);
}

} // namespace bench

#endif
