#ifndef KESA_COMMADAPTER_PROTOCOL_SHARED_H
#define KESA_COMMADAPTER_PROTOCOL_SHARED_H

#include <comm/Clock.h>

#include <atomic>
#include <cstdint>

namespace kesa::commadapter::protocol {

/// What the input half tells the output half; the halves share nothing else. Each is a number of its own, of which a
/// little late is soon enough: no order between them is needed.
struct Shared {
    explicit Shared(comm::TimeNs now) : lastReceived(now) {}

    std::atomic<comm::TimeNs> lastReceived;
    std::atomic<std::uint64_t> receivedCount{0}; ///< grows with each `received`: two of them may have the same time
    std::atomic<unsigned> pongsOwed{0};
    std::atomic<bool> hasHello{false};
    std::atomic<bool> isHeld{false}; ///< the input half takes up no further frame
    std::atomic<std::uint32_t> peerMaxMessageBytes{UINT32_MAX};
};

} // namespace kesa::commadapter::protocol

#endif
