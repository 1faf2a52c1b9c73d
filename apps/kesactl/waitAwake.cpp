#include "waitAwake.h"

#include <algorithm>

namespace kesactl {

bool waitAwake(comm::Condition& condition, std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate,
               comm::TimeNs& deadline)
{
    constexpr comm::TimeNs PART = 100 * comm::MILLISECOND;
    constexpr comm::TimeNs LATE = 20 * comm::MILLISECOND; // of a wait that ends by the clock
    if (deadline == comm::NEVER) {
        return comm::waitFor(condition, lock, predicate);
    }
    bool isSo = false;
    do {
        const comm::TimeNs end = std::min(comm::now() + PART, deadline);
        isSo = comm::waitFor(condition, lock, predicate, end);
        const comm::TimeNs late = comm::now() - end;
        deadline += !isSo && late > LATE ? late : 0;
    } while (!isSo && comm::now() < deadline);
    return isSo;
}

} // namespace kesactl
