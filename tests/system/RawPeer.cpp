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

namespace wire {

namespace {

constexpr std::size_t HEADER_BYTES = 16;

void append(std::string& out, std::uint64_t number, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<char>(number >> (8 * i)));
    }
}

std::uint32_t read(std::string_view from, std::size_t at, int bytes)
{
    std::uint32_t number = 0;
    for (int i = bytes; i > 0; --i) {
        number = number << 8U | static_cast<unsigned char>(from[at + static_cast<std::size_t>(i) - 1]);
    }
    return number;
}

std::string text(const std::string& content)
{
    return static_cast<char>(0x60 + content.size()) + content;
}

} // namespace

std::string frame(std::uint8_t kind, std::uint32_t stream, std::uint32_t target, const std::string& head,
                  const std::string& body, std::uint8_t flags)
{
    std::string bytes;
    append(bytes, head.size() + body.size(), 4);
    append(bytes, kind, 1);
    append(bytes, flags, 1);
    append(bytes, head.size(), 2);
    append(bytes, stream, 4);
    append(bytes, target, 4);
    return bytes + head + body;
}

std::string hello()
{
    using namespace std::string_literals;
    return frame(eHELLO, 0, 0, "\xbf\x10\x01\x11\x01\x12"s + text("raw") + "\x14\x50" + "0123456789abcdef" + "\xff");
}

std::string attach(std::uint32_t target, const std::string& path)
{
    return frame(eATTACH, 0, target, "\xbf\x01" + text(path) + "\xff");
}

std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource, const std::string& body)
{
    using namespace std::string_literals;
    return frame(eREQUEST, stream, target, "\xbf\x00\x00\x01"s + text(resource) + "\xff", body);
}

} // namespace wire

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

RawPeer::RawPeer(RawPeer&& other) noexcept
    : m_socket(std::exchange(other.m_socket, -1)), m_input(std::move(other.m_input))
{}

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

/// False at the end.
bool RawPeer::fill()
{
    pollfd ready{m_socket, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(std::chrono::milliseconds(LIMIT).count())) <= 0) {
        throw Missing("a raw peer waited in vain for bytes or the end");
    }
    std::array<char, 65536> buffer;
    const ssize_t size = ::recv(m_socket, buffer.data(), buffer.size(), 0);
    if (size > 0) {
        m_input.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return size > 0;
}

RawPeer::Frame RawPeer::receive()
{
    while (true) {
        while (m_input.size() < wire::HEADER_BYTES || m_input.size() - wire::HEADER_BYTES < wire::read(m_input, 0, 4)) {
            if (!fill()) {
                throw Missing("a raw peer was cut off instead of answered");
            }
        }
        const std::size_t length = wire::read(m_input, 0, 4);
        const std::size_t head = wire::read(m_input, 6, 2);
        Frame frame{static_cast<std::uint8_t>(m_input[4]), wire::read(m_input, 8, 4), wire::read(m_input, 12, 4),
                    m_input.substr(wire::HEADER_BYTES + head, length - head)};
        m_input.erase(0, wire::HEADER_BYTES + length);
        if (frame.kind != wire::eHELLO) {
            return frame;
        }
    }
}

void RawPeer::awaitClosed()
{
    while (fill()) {
        m_input.clear();
    }
}

} // namespace kesa::system_test
