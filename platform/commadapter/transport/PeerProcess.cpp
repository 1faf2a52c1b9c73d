#include "transport/PeerProcess.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace kesa::commadapter::transport {

namespace {

bool isAtEnd(int socket)
{
    char byte = 0;
    return retryInterrupted([&] { return ::recv(socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT); }) == 0;
}

} // namespace

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
    if (isAtEnd(socket)) {
        return {};
    }
    return {std::move(pidfd), false};
}

PeerProcess openPeerProcess(int socket, std::int64_t pid)
{
    // The option knows who connected. Where another process wrote the first bytes, that one is the peer.
    ucred connected{};
    socklen_t size = sizeof connected;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &connected, &size) != 0 || connected.pid != pid) {
        return openPeerProcessByPid(socket, pid);
    }
    auto pidfd = Descriptor::open([socket] {
        int opened = -1;
        socklen_t bytes = sizeof opened;
        return ::getsockopt(socket, SOL_SOCKET, SO_PEERPIDFD, &opened, &bytes) == 0 ? opened : -1;
    });
    if (pidfd) {
        return {std::move(pidfd), false};
    }
    return errno == ESRCH ? PeerProcess{Descriptor(), true} : openPeerProcessByPid(socket, pid);
}

} // namespace kesa::commadapter::transport
