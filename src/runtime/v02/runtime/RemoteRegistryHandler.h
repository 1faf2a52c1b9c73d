#ifndef KESA_RUNTIME_V02_REMOTEREGISTRYHANDLER_H
#define KESA_RUNTIME_V02_REMOTEREGISTRYHANDLER_H

#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace kesa::runtime::v02 {

/// The connection to a registry in another process: keeps every long-lived request under an id, issues it whenever
/// there is a connection, again after each reconnection, in the order of the ids.
///
/// The news of the connection are older than the connection itself when the executor is behind: what is issued then
/// goes over a connection that nobody has told of yet, and is issued again when that is told. So each loss cancels what
/// was issued before it is told (nothing happens to what has ended), and each issue has a number: only answers to the
/// latest issue of a request count.
///
/// Threads: connection news and all operations on the executor. The lock is held while requests are issued and
/// cancelled, and cancelling waits for an answer that is being told: answers never take the lock, they are posted. An
/// issue function must not call back (asserted).
class RemoteRegistryHandler {
public:
    using IServiceRegistry = serviceregistry::IServiceRegistry;
    using ServiceRegistryPex = serviceregistry::ServiceRegistryPex;
    /// Hears of the registry while it is connected, of null when it is not.
    using ConnectionHandler = IResponseHandler<std::shared_ptr<ServiceRegistryPex>>;

    /// One of the times a request was issued. Answers carry it.
    struct Issue {
        std::uint32_t request; ///< its id
        std::uint64_t number;  ///< of all issues
    };

    struct Request {
        /// Places the request and returns the registry's handle of it.
        std::function<void*(IServiceRegistry*, const Issue&)> issue = [](auto*, const Issue&) { return nullptr; };
        /// The connection is lost: what the request of that id has reported is not known any more.
        std::function<void(std::uint32_t)> onDisconnect = [](std::uint32_t) {};
        void* handle = nullptr;      ///< of the last issue; null while not issued
        std::uint64_t lastIssue = 0; ///< its number
    };

    using Connect = std::function<void(std::unique_ptr<ConnectionHandler>&& handler)>;

    /// Subscribes to the state of the connection with `connect`, once, here. The object outlives the subscription.
    explicit RemoteRegistryHandler(Connect connect);
    RemoteRegistryHandler(const RemoteRegistryHandler&) = delete;
    RemoteRegistryHandler& operator=(const RemoteRegistryHandler&) = delete;
    ~RemoteRegistryHandler() = default;

    /// Keeps the request, and issues it when there is a connection. Ids count up from 0.
    std::uint32_t execute(Request request);
    /// Ends the request, at the registry too. Unknown ids are ignored.
    void cancel(std::uint32_t id);
    /// Whether answers to it count: the request is kept, and has not been issued again.
    bool isLatest(const Issue& issue);

private:
    class Dispatching;

    void connectionChanged(const std::shared_ptr<ServiceRegistryPex>& registry);
    void issue(std::uint32_t id, Request& request);
    void notDispatching() const;

    const Connect m_connect;
    std::shared_ptr<ServiceRegistryPex> m_registry;
    std::map<std::uint32_t, Request> m_requests;
    std::uint32_t m_nextId = 0;
    std::uint64_t m_lastIssue = 0;
    std::mutex m_lock; ///< of all above: keeps operations apart from the news of the connection, wherever these come
    std::atomic<bool> m_isDispatching{false};
};

} // namespace kesa::runtime::v02

#endif
