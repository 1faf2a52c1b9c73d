#include "backend/connection/timeLimit.h"

namespace kesa::commadapter {

bool readTimeLimit(const util::config::Value& header, comm::TimeNs& limit)
{
    limit = comm::NEVER;
    if (!header.isDefined()) {
        return false;
    }
    std::uint64_t milliseconds = 0;
    if (header.get(milliseconds)) {
        return true;
    }
    if (milliseconds < static_cast<std::uint64_t>(comm::NEVER / comm::MILLISECOND)) {
        limit = static_cast<comm::TimeNs>(milliseconds) * comm::MILLISECOND;
    }
    return false;
}

} // namespace kesa::commadapter
