#ifndef KESA_TESTS_SYSTEM_RAWPEER_H
#define KESA_TESTS_SYSTEM_RAWPEER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kesa::system_test {

/// Frames as docs/protocol.md describes them, written out anew: a peer that breaks the rules cannot be built of the
/// code that keeps them.
namespace wire {

enum Kind : std::uint8_t { eHELLO = 1, eATTACH = 2, eDETACHED = 4, eREQUEST = 5, eERROR = 7, eCOMPLETED = 8 };

enum Flags : std::uint8_t { eMORE = 1 };

constexpr std::size_t REQUEST_WINDOW = 262144;
/// What a request of one frame takes of it.
std::size_t costOf(std::string_view request);

std::string frame(std::uint8_t kind, std::uint32_t stream, std::uint32_t target, const std::string& head = {},
                  const std::string& body = {}, std::uint8_t flags = 0);
/// `instance`: 16 bytes.
std::string hello(const std::string& instance = "0123456789abcdef");
std::string attach(std::uint32_t target, const std::string& path);
/// A "retrieve" of `resource`.
std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource);
/// The registration of a path at the registry.
std::string registration(std::uint32_t stream, std::uint32_t target, const std::string& path);
/// The first fragment of a "retrieve" of "/" with a body of so many bytes, and one that is not the last.
std::string beginningOfRequest(std::uint32_t stream, std::uint32_t target, std::uint32_t bodyBytes);
std::string fragmentOfRequest(std::uint32_t stream, std::uint32_t target);

Kind kindOf(std::string_view frame);
std::string instanceIn(std::string_view hello);
/// Of an answer.
std::uint32_t statusOf(std::string_view frame);

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

    /// The next frame that the other side has written.
    std::string readFrame();
    /// Reads on until the other side closes.
    void awaitClosed();
    void close();

private:
    void awaitBytes() const;

    int m_socket = -1;
};

} // namespace kesa::system_test

#endif
