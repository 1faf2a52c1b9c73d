#ifndef KESA_TESTS_SYSTEM_RAWPEER_H
#define KESA_TESTS_SYSTEM_RAWPEER_H

#include <cstdint>
#include <string>
#include <string_view>

namespace kesa::system_test {

/// Frames as docs/protocol.md describes them, written out anew: a peer that breaks the rules cannot be built of the
/// code that keeps them.
namespace wire {

enum Kind : std::uint8_t {
    eHELLO = 1,
    eATTACH,
    eATTACHED,
    eDETACHED,
    eREQUEST,
    eNEXT,
    eERROR,
    eCOMPLETED,
    eCANCEL,
    ePING,
    ePONG
};

inline constexpr std::uint8_t MORE = 1;
inline constexpr std::uint32_t LARGEST_FRAME = 65536;

std::string header(std::uint32_t length, std::uint8_t kind, std::uint8_t flags, std::uint16_t head,
                   std::uint32_t stream, std::uint32_t target);
std::string frame(std::uint8_t kind, std::uint32_t stream, std::uint32_t target, const std::string& head = {},
                  const std::string& body = {}, std::uint8_t flags = 0);
std::string hello();
std::string attach(std::uint32_t target, const std::string& path);
/// A "retrieve" of `resource`, of at most 23 bytes.
std::string request(std::uint32_t stream, std::uint32_t target, const std::string& resource,
                    const std::string& body = {});
/// The first fragment of a request with a body of `size` bytes.
std::string firstFragment(std::uint32_t stream, std::uint32_t target, std::uint32_t size);

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

    struct Frame {
        std::uint8_t kind = 0;
        std::uint32_t stream = 0;
        std::uint32_t target = 0;
        std::string body;
    };
    /// The next frame that is no hello.
    Frame receive();
    /// Reads on until the other side closes.
    void awaitClosed();
    void close();

private:
    bool fill();

    int m_socket = -1;
    std::string m_input;
};

/// A server that is only a socket. Its file stays.
class RawListener {
public:
    /// Its socket is there, and refuses everybody until `listen`.
    RawListener(const std::string& runDirectory, const std::string& process);
    ~RawListener();
    RawListener(const RawListener&) = delete;
    RawListener& operator=(const RawListener&) = delete;

    void listen() const;
    /// Waits for the next client, writes, and closes the connection.
    void answerNext(std::string_view bytes) const;

private:
    int m_socket = -1;
};

} // namespace kesa::system_test

#endif
