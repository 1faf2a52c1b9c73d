#ifndef KESA_COMMADAPTER_PROTOCOL_SHARED_H
#define KESA_COMMADAPTER_PROTOCOL_SHARED_H

#include "protocol/Frame.h"

#include <comm/Clock.h>

#include <atomic>
#include <cstdint>

namespace kesa::commadapter::protocol {

/// What the input half, which is the loop's, tells the output half, which is under the connection's lock; the halves
/// share nothing else. Each stands for itself and says of no other memory, so relaxed order will do: what is seen a
/// moment later is as if the bytes had come later.
struct Shared {
    explicit Shared(comm::TimeNs now) : lastReceived(now) {}

    std::atomic<comm::TimeNs> lastReceived;
    std::atomic<std::uint64_t> receivedCount{0}; ///< grows with each `received`: two of them may have the same time
    std::atomic<unsigned> pongsOwed{0};
    std::atomic<bool> hasHello{false};
    std::atomic<std::uint32_t> peerMaxMessageBytes{UINT32_MAX};
    std::atomic<std::uint32_t> peerStreamWindow{STREAM_WINDOW};
};

} // namespace kesa::commadapter::protocol

#endif
