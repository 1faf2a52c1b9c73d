#ifndef KESA_COMMADAPTER_BACKEND_SERVER_INTERESTS_H
#define KESA_COMMADAPTER_BACKEND_SERVER_INTERESTS_H

#include "backend/connection/StreamTable.h"
#include "backend/server/ServiceTable.h"

#include <gates/Gate.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace kesa::commadapter {

class ServerConnection;

/// A path that a client is interested in, under the number which the client has given it.
struct Target {
    std::string path;
    InterestList::iterator interest;
    std::shared_ptr<ProvidedService> service; ///< null while nobody provides the path
    access::GatePtr gate;                     ///< what the client may ask of it, once that is judged; null: everything
    bool isJudged = false;
    StreamList open; ///< of `ServedRequests`: the requests to it. With the connection's lock held
};

/// The paths that one client is interested in: it is told when each is provided and when no more. Loop only.
class Interests {
public:
    Interests(ServerConnection& connection, ServiceTable& services) : m_connection(connection), m_services(services) {}

    void attach(std::uint32_t target, std::string path);
    /// Cancels the requests to it, too.
    void detach(std::uint32_t target);
    bool isEmpty() const noexcept { return m_targets.empty(); }
    /// The connection has ended: forgets all, and cancels the requests.
    void end();
    /// While the client is held it is not told that a path is provided: it could attach and detach without end, and
    /// read nothing of it. This makes up for it.
    void tellUntold();
    /// Null for a number that the client has given nothing. A target outlives its open requests.
    Target* find(std::uint32_t target)
    {
        const auto found = m_targets.find(target);
        return found != m_targets.end() ? &found->second : nullptr;
    }

    // Called by the table.
    void provided(std::uint32_t target, const std::shared_ptr<ProvidedService>& service);
    /// Ends the requests of `target` and tells the client.
    void withdrawn(std::uint32_t target, const ProvidedService& service);

private:
    void count(const std::string& path, bool isMore);
    void tellProvided(std::uint32_t target);

    ServerConnection& m_connection;
    ServiceTable& m_services;
    std::size_t m_bytes = 0; ///< in the account of the client's user
    std::map<std::uint32_t, Target> m_targets;
    std::set<std::uint32_t> m_untold; ///< provided, which the client does not know
};

} // namespace kesa::commadapter

#endif
