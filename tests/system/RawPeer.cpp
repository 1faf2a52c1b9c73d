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

void append(std::string& out, std::uint64_t number, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<char>(number >> (8 * i)));
    }
}

constexpr const char* INSTANCE = "\x14\x50"; // its key, and that it has 16 bytes

std::uint32_t numberAt(std::string_view bytes, std::size_t offset)
{
    std::uint32_t number = 0;
    for (std::size_t i = 4; i > 0; --i) {
        number = number << 8U | static_cast<unsigned char>(bytes[offset + i - 1]);
    }
    return number;
}

constexpr std::size_t SHORT_BYTES = 23;       // of a text, whose size then stands in its first byte
constexpr std::size_t FRAGMENT_BYTES = 65536; // of a frame that is not the last of its message

std::string text(const std::string& content)
{
    if (content.size() <= SHORT_BYTES) {
        return static_cast<char>(0x60 + content.size()) + content;
    }
    std::string size{'\x79'};
    size.push_back(static_cast<char>(content.size() >> 8U));
    size.push_back(static_cast<char>(content.size()));
    return size + content;
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

std::string hello(const std::string& instance)
{
    using namespace std::string_literals;
    return frame(eHELLO, 0, 0, "\xbf\x10\x02\x11\x02\x12"s + text("raw") + INSTANCE + instance + "\xff");
}

std::string attach(std::uint32_t target, const std::string& path)
{
    return frame(eATTACH, 0, target, "\xbf\x01" + text(path) + "\xff");
}

std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource)
{
    using namespace std::string_literals;
    return frame(eREQUEST, stream, target, "\xbf\x00\x00\x01"s + text(resource) + "\xff");
}

std::string registration(std::uint32_t stream, std::uint32_t target, const std::string& path)
{
    using namespace std::string_literals;
    const std::string head = "\xbf\x00\x03\x01"s + text(path) + "\x02\x01\x05\x00\x06"s + text("/registry") + "\xff";
    return frame(eREQUEST, stream, target, head,
                 R"({"path":")" + path + R"(","type":"pex","versions":[],"locators":["ipc://raw/"]})");
}

std::string beginningOfRequest(std::uint32_t stream, std::uint32_t target, std::uint32_t bodyBytes)
{
    using namespace std::string_literals;
    std::string head = "\xbf\x00\x00\x01\x61/\x02\x01\x03\x1a"s;
    for (int shift = 24; shift >= 0; shift -= 8) {
        head.push_back(static_cast<char>(bodyBytes >> static_cast<unsigned>(shift)));
    }
    head += '\xff';
    return frame(eREQUEST, stream, target, head, std::string(FRAGMENT_BYTES - head.size(), ' '), eMORE);
}

std::string fragmentOfRequest(std::uint32_t stream, std::uint32_t target)
{
    return frame(eREQUEST, stream, target, {}, std::string(FRAGMENT_BYTES, ' '), eMORE);
}

std::size_t costOf(std::string_view request)
{
    return 256 + numberAt(request, 0);
}

Kind kindOf(std::string_view frame)
{
    return static_cast<Kind>(frame.at(4));
}

std::string instanceIn(std::string_view hello)
{
    return std::string(hello.substr(hello.find(INSTANCE) + 2, 16));
}

std::uint32_t statusOf(std::string_view frame)
{
    return numberAt(frame, 12);
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
    constexpr std::size_t HEADER_BYTES = 16;
    std::string frame;
    for (std::size_t bytes = HEADER_BYTES; frame.size() < bytes;) {
        awaitBytes();
        const std::size_t had = frame.size();
        frame.resize(bytes);
        const ssize_t size = ::recv(m_socket, frame.data() + had, bytes - had, 0);
        if (size <= 0) {
            throw Missing("the connection of a raw peer has ended");
        }
        frame.resize(had + static_cast<std::size_t>(size));
        bytes = frame.size() < HEADER_BYTES ? HEADER_BYTES : HEADER_BYTES + wire::numberAt(frame, 0);
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
