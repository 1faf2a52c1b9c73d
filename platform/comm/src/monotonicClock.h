#ifndef COMM_MONOTONICCLOCK_H
#define COMM_MONOTONICCLOCK_H

#include <comm/Clock.h>

#include <ctime>

namespace comm {

inline TimeNs readClock(clockid_t clock) noexcept
{
    timespec time{};
    ::clock_gettime(clock, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

inline TimeNs monotonicNow() noexcept
{
    return readClock(CLOCK_MONOTONIC);
}

} // namespace comm

#endif
