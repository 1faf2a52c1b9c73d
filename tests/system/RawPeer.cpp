#include "RawPeer.h"

#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace kesa::system_test {

namespace {

/// Connects a new socket to that of a process, whatever the length of the path.
int openSocket(const std::string& runDirectory, const std::string& process)
{
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int directory = ::open(runDirectory.c_str(), O_PATH | O_CLOEXEC);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = "/proc/self/fd/" + std::to_string(directory) + '/' + process + ".sock";
    path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
    const int failed = ::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(directory);
    if (failed != 0) {
        ::close(socket);
        throw Missing("no socket of " + process + ": " + std::strerror(errno));
    }
    return socket;
}

} // namespace

RawPeer::RawPeer(const std::string& runDirectory, const std::string& process)
    : m_socket(openSocket(runDirectory, process))
{}

RawPeer::RawPeer(RawPeer&& other) noexcept : m_socket(std::exchange(other.m_socket, -1)) {}

RawPeer::~RawPeer()
{
    close();
}

void RawPeer::close()
{
    if (m_socket >= 0) {
        ::close(std::exchange(m_socket, -1));
    }
}

bool RawPeer::send(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t size = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (size < 0 && errno != EINTR) {
            return true;
        }
        bytes.remove_prefix(size > 0 ? static_cast<std::size_t>(size) : 0);
    }
    return false;
}

std::size_t RawPeer::sendSome(std::string_view bytes)
{
    const ssize_t size = ::send(m_socket, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return size > 0 ? static_cast<std::size_t>(size) : 0;
}

/// Or the end.
void RawPeer::awaitBytes() const
{
    pollfd ready{m_socket, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(LIMIT).count())) <= 0) {
        throw Missing("a raw peer waited in vain for bytes or the end");
    }
}

std::string RawPeer::readFrame()
{
    std::string frame;
    for (std::size_t bytes = wire::HEADER_BYTES; frame.size() < bytes;) {
        awaitBytes();
        const std::size_t had = frame.size();
        frame.resize(bytes);
        const ssize_t size = ::recv(m_socket, frame.data() + had, bytes - had, 0);
        if (size <= 0) {
            throw Missing("the connection of a raw peer has ended");
        }
        frame.resize(had + static_cast<std::size_t>(size));
        bytes = frame.size() < wire::HEADER_BYTES ? wire::HEADER_BYTES : wire::sizeOf(frame);
    }
    return frame;
}

void RawPeer::awaitClosed()
{
    std::array<char, 65536> buffer;
    do {
        awaitBytes();
    } while (::recv(m_socket, buffer.data(), buffer.size(), 0) > 0);
}

} // namespace kesa::system_test
