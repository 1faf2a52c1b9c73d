#ifndef KESA_EASE_WAITING_H
#define KESA_EASE_WAITING_H

#include <comm/Clock.h>

#include <chrono>
#include <string>

namespace kesa::detail {

/// Why this thread must not wait: it is one that delivers what would be waited for. Empty when it may.
/// `instead` says what to do.
std::string refusalToWait(const char* operation, const char* instead);

/// When `timeout` from now is over; it may be as long as it likes.
comm::TimeNs deadlineIn(std::chrono::nanoseconds timeout);

} // namespace kesa::detail

#endif
