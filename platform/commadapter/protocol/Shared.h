#ifndef KESA_COMMADAPTER_PROTOCOL_SHARED_H
#define KESA_COMMADAPTER_PROTOCOL_SHARED_H

#include "protocol/Frame.h"
#include "protocol/Machine.h"

#include <atomic>
#include <cstdint>

namespace kesa::commadapter::protocol {

/// What the input half tells the output half; the halves share nothing else.
struct Machine::Shared {
    std::atomic<comm::TimeNs> lastReceived{0};
    std::atomic<std::uint64_t> receivedCount{0}; ///< grows with each `received`: two of them may have the same time
    std::atomic<unsigned> pongsOwed{0};
    std::uint64_t pongs = 0; ///< received; the input half's own
    std::atomic<bool> hasHello{false};
    std::atomic<bool> isHeld{false}; ///< the input half takes up no further frame
    std::atomic<std::uint32_t> peerMaxMessageBytes{UINT32_MAX};
};

} // namespace kesa::commadapter::protocol

#endif
