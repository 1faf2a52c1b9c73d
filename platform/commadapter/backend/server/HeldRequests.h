#ifndef KESA_COMMADAPTER_BACKEND_SERVER_HELDREQUESTS_H
#define KESA_COMMADAPTER_BACKEND_SERVER_HELDREQUESTS_H

#include <comm/Clock.h>
#include <kesa/Request.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <unordered_map>

namespace kesa::commadapter {

class ServerConnection;

/// The requests of one client on their way to the services: what they take of its window, and those that wait while it
/// is held for not taking its answers. Loop only.
class HeldRequests {
public:
    struct Held {
        std::uint32_t stream;
        std::uint32_t target;
        Request request;
        bool isPersistent;
        bool isCancelled;
        std::size_t cost;
        comm::TimeNs came; ///< from when on its time limit counts
    };

    explicit HeldRequests(ServerConnection& connection) : m_connection(connection) {}

    /// One has come. It is served at once, or waits.
    void take(std::uint32_t stream, std::uint32_t target, Request&& request, bool isPersistent, std::size_t cost);
    /// Serves those that wait, in their order, as long as the client is not held, and until `until` has come.
    void serve(comm::TimeNs until);
    /// Ends one that waits. False when none of that number does.
    bool cancel(std::uint32_t stream);
    /// The client has no interest in the target any more.
    void cancelAll(std::uint32_t target);
    bool isWaiting(std::uint32_t stream) const { return m_places.count(stream) != 0; }
    /// Of those that wait.
    std::size_t bytes() const noexcept { return m_waiting.empty() ? 0 : m_used - m_handled; }
    /// The connection has ended: forgets them.
    void end();

private:
    void cancel(Held& held);
    void handled(std::size_t cost);

    ServerConnection& m_connection;
    std::size_t m_used = 0;    ///< of the window
    std::size_t m_handled = 0; ///< of that
    std::deque<Held> m_waiting;
    std::uint64_t m_first = 0;                                 ///< number of the first of them
    std::unordered_map<std::uint32_t, std::uint64_t> m_places; ///< numbers of those not cancelled, by stream
};

} // namespace kesa::commadapter

#endif
