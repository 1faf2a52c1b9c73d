#ifndef COMM_CLOCK_H
#define COMM_CLOCK_H

#include <obr/api.h>

#include <cstdint>

namespace comm {

/// Nanoseconds of a clock that only goes forward; its zero has no meaning.
using TimeNs = std::int64_t;

inline constexpr TimeNs NEVER = INT64_MAX;
inline constexpr TimeNs MILLISECOND = 1'000'000;
inline constexpr TimeNs SECOND = 1'000'000'000;

/// The time, as `comm::Scheduler` has it. Any thread.
KESA_API TimeNs now() noexcept;

} // namespace comm

#endif
