#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_COMMSETTINGS_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_COMMSETTINGS_H

#include <comm/Clock.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace kesa::commadapter {

/// The settings of the "comm" backend, as the document's "comm" member has them.
struct CommSettings {
    std::string document; ///< the file they are of, absolute; empty: there is none
    std::string runDir;
    unsigned socketMode = 0660;
    std::string socketGroup;
    std::map<std::string, std::string> routes; ///< path without scheme -> locator
    std::uint32_t maxMessageBytes = 16U << 20U;
    std::size_t sendQueueBytes = 4U << 20U;
    std::size_t processQueueBytes = 64U << 20U;
    /// Of values of one persistent stream, how much may have come that is not handled.
    std::uint32_t streamWindow = 64U << 10U;
    comm::TimeNs heartbeat = 5 * comm::SECOND;
};

} // namespace kesa::commadapter

#endif
