#ifndef KESA_COMMADAPTER_TRANSPORT_PEERPROCESS_H
#define KESA_COMMADAPTER_TRANSPORT_PEERPROCESS_H

#include "transport/Descriptor.h"

#include <cstdint>

namespace kesa::commadapter::transport {

/// A descriptor that becomes readable when the process at the other end of a Unix socket has ended. Empty where the
/// kernel gives none; `hasEnded` then tells whether that is because the process is gone.
struct PeerProcess {
    Descriptor pidfd;
    bool hasEnded = false;
};

/// `pid` is the peer's, as the credentials on `socket` have it.
PeerProcess openPeerProcess(int socket, std::int64_t pid);

/// The same without `SO_PEERPIDFD`, which Linux has since 6.5.
PeerProcess openPeerProcessByPid(int socket, std::int64_t pid);

} // namespace kesa::commadapter::transport

#endif
