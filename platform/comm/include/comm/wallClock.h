#ifndef COMM_WALLCLOCK_H
#define COMM_WALLCLOCK_H

#include <comm/Clock.h>

namespace comm {

/// Nanoseconds since the beginning of 1970, UTC. For people to read: this clock may be set, forwards and back, so
/// nothing is measured or waited for by it. Any thread.
KESA_API TimeNs wallClock() noexcept;

} // namespace comm

#endif
