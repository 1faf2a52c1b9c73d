#ifndef KESA_EASE_WAITING_H
#define KESA_EASE_WAITING_H

#include <comm/Clock.h>

#include <chrono>
#include <string>

namespace kesa::detail {

/// What who asks without a runtime is told.
inline constexpr const char* NO_RUNTIME =
    "this process has no runtime; make a kesa::Runtime first in main, and let it end last";

/// Why this thread must not wait: it is one that delivers what would be waited for. Empty when it may.
/// `instead` says what to do.
std::string refusalToWait(const char* operation, const char* instead);

/// When `timeout` from now is over; it may be as long as it likes.
comm::TimeNs deadlineIn(std::chrono::nanoseconds timeout);

} // namespace kesa::detail

#endif
