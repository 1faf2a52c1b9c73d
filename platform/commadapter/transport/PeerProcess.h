#ifndef KESA_COMMADAPTER_TRANSPORT_PEERPROCESS_H
#define KESA_COMMADAPTER_TRANSPORT_PEERPROCESS_H

#include "transport/Descriptor.h"
#include "transport/ITransport.h"

#include <cstdint>

namespace kesa::commadapter::transport {

/// A descriptor that becomes readable when the process at the other end of a Unix socket has ended. Empty where the
/// kernel gives none; then one of the others may tell why.
struct PeerProcess {
    Descriptor pidfd;
    bool hasEnded = false;   ///< the process is gone
    bool isShort = false;    ///< no descriptors or memory just now
    std::uint64_t start = 0; ///< as in `PeerIdentity`
};

/// Of who connected, and of who listens, as they were then: nobody becomes another one by who writes. Without `start`.
PeerIdentity identityOf(int socket);

/// `pid` is the peer's, as `SO_PEERCRED` has it; not above 0 where it is of another namespace.
PeerProcess openPeerProcess(int socket, std::int64_t pid);

/// The same without `SO_PEERPIDFD`, which Linux has since 6.5.
PeerProcess openPeerProcessByPid(int socket, std::int64_t pid);

/// Whether the process of a pidfd has ended, though perhaps nobody has asked how.
bool hasEnded(const Descriptor& pidfd);

} // namespace kesa::commadapter::transport

#endif
