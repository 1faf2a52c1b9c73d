#include <comm/wallClock.h>

#include "monotonicClock.h"

namespace comm {

TimeNs wallClock() noexcept
{
    return readClock(CLOCK_REALTIME);
}

} // namespace comm
