#ifndef KESA_COMMADAPTER_BACKEND_SERVER_SERVICETABLE_H
#define KESA_COMMADAPTER_BACKEND_SERVER_SERVICETABLE_H

#include "backend/connection/Connection.h"
#include "backend/server/Doorkeeper.h"

#include <kesa/IKesaApi.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace kesa::commadapter {

class Interests;
class ServerConnection;

/// A client that wants to know whether a path is provided: one of its interests, by the number that it gave it.
struct Interest {
    Interests* client;
    std::uint32_t target;
};
/// Of one path, in the order they came.
using InterestList = std::list<Interest>;

/// A service object under its path. Provided twice under one path in turn makes two of these.
struct ProvidedService {
    const std::string path;
    IKesaApi* const service;
    bool isWithdrawn = false; ///< loop only: it is not called any more
};

/// The services of this process, and the connections over which others are interested in their paths, also in those
/// that nobody provides yet. Loop only, unless said otherwise.
class ServiceTable : public std::enable_shared_from_this<ServiceTable> {
public:
    /// `own` is what is found under its path while the process provides nothing there; it stays until the loop has
    /// ended. `table` says who may ask what; null: everybody everything.
    ServiceTable(std::shared_ptr<IoLoop> loop, MakeHello makeHello, const ProvidedService& own,
                 std::shared_ptr<access::Table> table);
    ~ServiceTable();

    /// True when the path is taken. The clients that wait for it are told. Any thread.
    [[nodiscard]] bool provide(const std::string& path, IKesaApi* service);
    /// Returns when nobody calls the service any more and its clients have been told; unknown paths are ignored. Any
    /// thread.
    void withdraw(const std::string& path);

    /// A client has connected. `scheme` is how it came, "local" for one of this process.
    void accept(std::unique_ptr<transport::IStream> stream, const std::string& scheme,
                std::weak_ptr<const transport::ITransport> transport = {});
    /// Of the first `most` connections; answers how many there are.
    std::size_t addFacts(std::vector<ConnectionFacts>& facts, std::size_t most) const;
    /// Up to `most` of the paths that the process provides, in order; answers how many it does. Any thread.
    std::size_t addPaths(std::vector<std::string>& paths, std::size_t most) const;
    /// All services are, to other users, since the table of rules cannot be read. Loop only.
    bool areClosed() const noexcept { return m_doorkeeper.isTableUnreadable(); }
    /// Who may ask what: see `Doorkeeper`. `asker` null: this process.
    Response explainAccess(const util::config::Value& question, const RequestContext* asker);
    /// Withdraws everything and ends all connections.
    void stop();
    /// After the loop's end, any thread: drops what a loop that was killed has left.
    void abandon();

    // Called by the connections.
    InterestList::iterator addInterest(Interests& client, std::uint32_t target, const std::string& path);
    void removeInterest(const std::string& path, InterestList::iterator interest);
    /// Null while nobody provides the path. Any thread.
    std::shared_ptr<ProvidedService> find(const std::string& path) const;
    void remove(const std::shared_ptr<ServerConnection>& connection);
    Doorkeeper& doorkeeper() noexcept { return m_doorkeeper; }

private:
    std::string whyRefused(const transport::PeerIdentity& peer);
    bool endIdle(std::int64_t uid);
    void count(const ServerConnection& connection, bool isMore);
    void noteRules(const std::string& path);
    void announce(const std::shared_ptr<ProvidedService>& service);
    void withdrawNow(const std::shared_ptr<ProvidedService>& service);

    const std::shared_ptr<IoLoop> m_loop;
    const MakeHello m_makeHello;
    const std::shared_ptr<ProvidedService> m_own;
    mutable std::mutex m_lock; ///< services come and go in any thread, the loop looks them up
    std::map<std::string, std::shared_ptr<ProvidedService>> m_services; ///< with the lock held
    /// By path, which is of the clients' choice: none may choose many of one hash. Read on the loop, or with the lock
    /// held; changed on the loop with the lock held.
    std::map<std::string, InterestList> m_interests;
    // Loop only.
    Doorkeeper m_doorkeeper;
    bool m_saysIdleRules = false;                               ///< before long
    std::list<std::shared_ptr<ServerConnection>> m_connections; ///< in the order they came
    std::unordered_map<std::int64_t, std::size_t> m_ofProcess;  ///< how many, by process number
};

} // namespace kesa::commadapter

#endif
