#ifndef KESA_COMMADAPTER_PROTOCOL_REQUESTWINDOW_H
#define KESA_COMMADAPTER_PROTOCOL_REQUESTWINDOW_H

#include "protocol/TurnQueue.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <unordered_map>

namespace kesa::commadapter::protocol {

/// What of the connection's window the requests have used, and those that wait for the server to give some back, in
/// their order. A request may leave while the window is not used up, however large it is.
class RequestWindow {
public:
    struct Waiting {
        std::uint32_t stream;
        TurnQueue::Message message;
    };

    /// Whether a further request has to wait here.
    bool isShut() const noexcept { return !m_order.empty() || m_used >= REQUEST_WINDOW; }
    bool isEmpty() const noexcept { return m_order.empty(); }
    bool isWaiting(std::uint32_t stream) const { return !m_order.empty() && m_waiting.count(stream) != 0; }
    /// One of so many bytes, head and body, leaves.
    void use(std::size_t content) noexcept { m_used += costOf(content); }
    void wait(std::uint32_t stream, TurnQueue::Message&& message);
    /// Takes one back that waits. Answers whether it does.
    bool drop(std::uint32_t stream);

    /// What was to leave has been taken back. Then `takeNext` until there is none.
    void takeBack(std::size_t cost) noexcept { m_used -= cost; }
    /// The server gives some back; so much of what was used has not left. Then `takeNext` likewise. True: it is more
    /// than it has got, and nothing is changed.
    [[nodiscard]] bool giveBack(std::size_t bytes, std::size_t unsent) noexcept;
    /// What may leave next of what waits.
    std::optional<Waiting> takeNext();

    /// What waits, as it will leave.
    std::size_t bytes() const noexcept { return m_bytes; }

private:
    std::size_t m_used = 0;
    std::size_t m_bytes = 0;
    std::list<Waiting> m_order;
    std::unordered_map<std::uint32_t, std::list<Waiting>::iterator> m_waiting; ///< by stream
};

} // namespace kesa::commadapter::protocol

#endif
