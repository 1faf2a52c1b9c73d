#include "transport/IpcStream.h"

#include "transport/PeerProcess.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <system_error>
#include <utility>

namespace kesa::commadapter::transport {

namespace {

/// Until descriptors that were short are tried for again.
constexpr comm::TimeNs SHORTAGE_PAUSE = 100 * comm::MILLISECOND;

/// Twice what sockets have by default, and as much as the default limit lets a process have: the kernel doubles what it
/// is told. A large message then leaves in fewer pieces, each of which costs a wake-up on both sides. What does not fit
/// there waits in the connection's own queue, as ever.
void setSendBuffer(int socket)
{
    constexpr int BYTES = 208 << 10;
    int present = 0;
    socklen_t size = sizeof present;
    if (::getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &present, &size) == 0 && present < 2 * BYTES) {
        ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &BYTES, sizeof BYTES);
    }
}

/// A single stretch, which most writes are, costs the kernel less than a list of them.
ssize_t send(int socket, std::span<const iovec> from)
{
    constexpr int FLAGS = MSG_NOSIGNAL | MSG_DONTWAIT;
    if (from.size() == 1) {
        return ::send(socket, from.front().iov_base, from.front().iov_len, FLAGS);
    }
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(from.data());
    message.msg_iovlen = std::min<std::size_t>(from.size(), IOV_MAX);
    return ::sendmsg(socket, &message, FLAGS);
}

} // namespace

IpcStream::IpcStream(std::shared_ptr<comm::Reactor> loop, Descriptor socket, util::UniqueFunction<void()> closed)
    : m_loop(std::move(loop)), m_socket(std::move(socket)), m_closed(std::move(closed)),
      m_peer(identityOf(m_socket.get()))
{
    setSendBuffer(m_socket.get());
}

IpcStream::~IpcStream()
{
    close();
}

void IpcStream::start(IStreamListener& listener)
{
    if (!m_socket) {
        return;
    }
    m_listener = &listener;
    m_watch = m_loop->watch(m_socket.get(), comm::Reactor::eREADABLE, [this](unsigned ready) { onReady(ready); });
    if (m_watch == 0) {
        m_isUnwatchable = true;
        m_timer = m_loop->startTimer(comm::now(), [this] {
            m_timer = 0;
            m_listener->onReadable();
        });
    } else {
        watchPeer();
    }
}

/// One call per turn: the listener may close and destroy the stream in it. What is left is reported in the next turn.
void IpcStream::onReady(unsigned readiness)
{
    // A hang-up is always told. Without reading it is left to the next write to find the end.
    if ((readiness & comm::Reactor::eWRITABLE) != 0U || !m_isReading) {
        m_wantsWrite = false;
        updateInterest();
        m_listener->onWritable();
    } else {
        m_listener->onReadable();
    }
}

IStream::Result IpcStream::read(std::span<unsigned char> into, std::size_t& size)
{
    size = 0;
    if (!m_socket || m_isUnwatchable) {
        return end(m_socket ? "the loop cannot watch the connection" : "closed");
    }
    if (into.empty()) {
        return Result::eWOULD_BLOCK;
    }
    const ssize_t received =
        retryInterrupted([&] { return ::recv(m_socket.get(), into.data(), into.size(), MSG_DONTWAIT); });
    if (received > 0) {
        size = static_cast<std::size_t>(received);
        m_owed -= std::min(m_owed, size);
        return Result::eDONE;
    }
    return received == 0 ? end("the peer closed the connection") : fail(errno);
}

IStream::Process IpcStream::process() const
{
    if (m_hasPeerEnded) {
        return Process::eENDED;
    }
    if (!m_pidfd) {
        return Process::eUNKNOWN;
    }
    return hasEnded(m_pidfd) ? Process::eENDED : Process::eLIVES;
}

std::size_t IpcStream::unread() const
{
    int bytes = 0;
    return ::ioctl(m_socket.get(), FIONREAD, &bytes) == 0 ? static_cast<std::size_t>(bytes) : 0;
}

IStream::Result IpcStream::write(std::span<const iovec> from, std::size_t& size)
{
    size = 0;
    if (!m_socket) {
        return end("closed");
    }
    const ssize_t sent = retryInterrupted([&] { return send(m_socket.get(), from); });
    if (sent < 0) {
        return fail(errno);
    }
    size = static_cast<std::size_t>(sent);
    return Result::eDONE;
}

void IpcStream::setReading(bool isOn)
{
    m_isReading = isOn;
    updateInterest();
}

void IpcStream::wantWrite()
{
    m_wantsWrite = true;
    updateInterest();
}

void IpcStream::updateInterest()
{
    if (m_watch != 0) {
        m_loop->changeInterest(m_watch, (m_isReading ? comm::Reactor::eREADABLE : comm::Reactor::eNONE) |
                                            (m_wantsWrite ? comm::Reactor::eWRITABLE : comm::Reactor::eNONE));
    }
}

void IpcStream::close()
{
    for (const comm::Reactor::Id watch : {std::exchange(m_watch, 0), std::exchange(m_pidfdWatch, 0)}) {
        if (watch != 0) {
            m_loop->unwatch(watch);
        }
    }
    if (m_timer != 0) {
        m_loop->cancelTimer(std::exchange(m_timer, 0));
    }
    m_pidfd.reset();
    m_socket.reset();
    m_listener = nullptr;
    if (auto closed = std::exchange(m_closed, nullptr)) {
        closed();
    }
}

void IpcStream::watchPeer()
{
    PeerProcess process = openPeerProcess(m_socket.get(), m_peer.pid);
    m_pidfd = std::move(process.pidfd);
    m_peer.start = process.start;
    if (m_pidfd) {
        m_pidfdWatch =
            m_loop->watch(m_pidfd.get(), comm::Reactor::eREADABLE, [this](unsigned /*ready*/) { onPeerEnded(); });
    } else if (process.hasEnded) {
        m_timer = m_loop->startTimer(comm::now(), [this] { onPeerEnded(); });
    } else if (process.isShort) {
        m_timer = m_loop->startTimer(comm::now() + SHORTAGE_PAUSE, [this] {
            m_timer = 0;
            watchPeer();
        });
    }
}

/// What the peer wrote before its end comes first; what its children may add does not count. Who does not read is not
/// waited for.
void IpcStream::onPeerEnded()
{
    m_timer = 0;
    if (!m_hasPeerEnded) {
        m_hasPeerEnded = true;
        m_owed = unread();
    }
    if (m_owed > 0 && m_isReading) {
        if (m_pidfdWatch == 0) {
            m_timer = m_loop->startTimer(comm::now(), [this] { onPeerEnded(); });
        }
        return; // the pidfd stays readable: asked again in the next turn
    }
    if (m_pidfdWatch != 0) {
        m_loop->unwatch(std::exchange(m_pidfdWatch, 0));
        m_pidfd.reset();
    }
    m_listener->onPeerExited();
}

IStream::Result IpcStream::end(const char* reason)
{
    const std::lock_guard lock(m_reasonMutex);
    if (m_reason.empty()) {
        m_reason = reason;
    }
    return Result::eENDED;
}

IStream::Result IpcStream::fail(int error)
{
    switch (error) {
    case EAGAIN:
    case ENOBUFS: // of the kernel's, not of the socket's: both pass
    case ENOMEM:
        return Result::eWOULD_BLOCK;
    case EPIPE:
    case ECONNRESET:
        return end("the peer closed the connection");
    default:
        return end(std::system_category().message(error).c_str());
    }
}

} // namespace kesa::commadapter::transport
