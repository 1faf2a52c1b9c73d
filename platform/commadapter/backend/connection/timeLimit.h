#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_TIMELIMIT_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_TIMELIMIT_H

#include <comm/Clock.h>
#include <util/config/Value.h>

namespace kesa::commadapter {

inline constexpr const char* BAD_TIME_LIMIT = "\"$timeout\" is not a whole number of milliseconds, 0 or more";

/// What the header "$timeout" of a request says, `comm::NEVER` without one. True when it says nothing that can be
/// understood.
[[nodiscard]] bool readTimeLimit(const util::config::Value& header, comm::TimeNs& limit);

/// `limit` from `begin` on; `comm::NEVER` when that is further than the clock goes.
constexpr comm::TimeNs deadlineOf(comm::TimeNs begin, comm::TimeNs limit) noexcept
{
    return limit >= comm::NEVER - begin ? comm::NEVER : begin + limit;
}

} // namespace kesa::commadapter

#endif
