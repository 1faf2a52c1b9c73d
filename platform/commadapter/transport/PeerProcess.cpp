#include "transport/PeerProcess.h"

#include <comm/processStart.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <utility>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace kesa::commadapter::transport {

namespace {

/// What it has written may still be there to read.
bool hasPeerClosed(int socket)
{
    pollfd closed{socket, 0, 0};
    return retryInterrupted([&closed] { return ::poll(&closed, 1, 0); }) > 0 && (closed.revents & POLLHUP) != 0;
}

/// A process that lives after its start was read has had its number all the time.
PeerProcess opened(Descriptor&& pidfd, std::int64_t pid)
{
    const std::uint64_t start = pid > 0 ? comm::processStartTicks(static_cast<pid_t>(pid)) : 0;
    const bool isOfIt = start != 0 && !hasEnded(pidfd);
    return {std::move(pidfd), false, false, isOfIt ? start : 0};
}

} // namespace

PeerIdentity identityOf(int socket)
{
    ucred credentials{};
    socklen_t size = sizeof credentials;
    PeerIdentity identity;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        identity.pid = credentials.pid;
        identity.uid = credentials.uid;
        identity.gid = credentials.gid;
    }
    return identity;
}

PeerProcess openPeerProcessByPid(int socket, std::int64_t pid)
{
    if (pid <= 0) {
        return {};
    }
    auto pidfd =
        Descriptor::open([pid] { return static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0U)); });
    if (!pidfd) {
        return {Descriptor(), errno == ESRCH, errno == EMFILE || errno == ENFILE || errno == ENOMEM};
    }
    // The number may have gone to a new process meanwhile; then the peer's end of the socket has been closed before.
    if (hasPeerClosed(socket)) {
        return {};
    }
    return opened(std::move(pidfd), pid);
}

PeerProcess openPeerProcess(int socket, std::int64_t pid)
{
    auto pidfd = Descriptor::open([socket] {
        int opened = -1;
        socklen_t bytes = sizeof opened;
        return ::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &opened, &bytes) == 0 ? opened : -1;
    });
    if (pidfd) {
        return opened(std::move(pidfd), pid);
    }
    return errno == ESRCH ? PeerProcess{Descriptor(), true} : openPeerProcessByPid(socket, pid);
}

bool hasEnded(const Descriptor& pidfd)
{
    pollfd ended{pidfd.get(), POLLIN, 0};
    return retryInterrupted([&ended] { return ::poll(&ended, 1, 0); }) > 0;
}

} // namespace kesa::commadapter::transport
