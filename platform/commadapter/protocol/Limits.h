#ifndef KESA_COMMADAPTER_PROTOCOL_LIMITS_H
#define KESA_COMMADAPTER_PROTOCOL_LIMITS_H

#include "protocol/Frame.h"

#include <comm/Clock.h>

#include <cstdint>

namespace kesa::commadapter::protocol {

/// Of one connection, as its own side holds them.
struct Limits {
    std::uint32_t maxMessageBytes = 16U << 20U; ///< of one message, head and body
    std::uint32_t maxHeadBytes = 60U << 10U;
    /// Of values of one persistent stream, how much the peer may have sent that was not given back to it as handled.
    std::uint32_t streamWindow = STREAM_WINDOW;
    comm::TimeNs helloTimeout = 3 * comm::SECOND;
    comm::TimeNs heartbeat = 5 * comm::SECOND; ///< how long a probed peer may stay silent
};

} // namespace kesa::commadapter::protocol

#endif
