#ifndef KESA_TESTS_SYSTEM_RAWPEER_H
#define KESA_TESTS_SYSTEM_RAWPEER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kesa::system_test {

/// Frames as docs/protocol.md describes them, written out anew: a peer that breaks the rules cannot be built of the
/// code that keeps them.
namespace wire {

enum Kind : std::uint8_t { eATTACH = 2, eDETACHED = 4, eREQUEST = 5 };

std::string frame(std::uint8_t kind, std::uint32_t stream, std::uint32_t target, const std::string& head = {},
                  const std::string& body = {});
std::string hello();
std::string attach(std::uint32_t target, const std::string& path);
/// A "retrieve" of `resource`, of at most 23 bytes.
std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource);

} // namespace wire

/// A client that is only a socket.
class RawPeer {
public:
    RawPeer(const std::string& runDirectory, const std::string& process);
    ~RawPeer();
    RawPeer(RawPeer&& other) noexcept;
    RawPeer& operator=(RawPeer&&) = delete;

    /// Writes until everything is taken, or the other side has closed: then true.
    bool send(std::string_view bytes);
    /// Writes what is taken without waiting, and answers how much that was.
    std::size_t sendSome(std::string_view bytes);

    /// Reads on until the other side closes.
    void awaitClosed();
    void close();

private:
    int m_socket = -1;
};

} // namespace kesa::system_test

#endif
