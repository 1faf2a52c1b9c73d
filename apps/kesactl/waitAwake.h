#ifndef KESACTL_WAITAWAKE_H
#define KESACTL_WAITAWAKE_H

#include <comm/Clock.h>
#include <comm/Condition.h>

#include <functional>
#include <mutex>

namespace kesactl {

/// `comm::waitFor`, but time in which this process itself stood still, as one that is stopped and continued, is not
/// held against those that it waits for: `deadline` moves by it.
bool waitAwake(comm::Condition& condition, std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate,
               comm::TimeNs& deadline);

} // namespace kesactl

#endif
