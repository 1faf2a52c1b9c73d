#ifndef KESA_TESTS_SYSTEM_RAWPEER_H
#define KESA_TESTS_SYSTEM_RAWPEER_H

#include "support/wire.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kesa::system_test {

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
