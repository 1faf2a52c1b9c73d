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
/// Threads: connection news and all operations on the executor. The lock is held while requests are issued and
/// cancelled; answers never take it. An issue function must not call back (asserted).
class RemoteRegistryHandler {
public:
    using IServiceRegistry = serviceregistry::IServiceRegistry;
    using ServiceRegistryPex = serviceregistry::ServiceRegistryPex;
    /// Hears of the registry while it is connected, of null when it is not.
    using ConnectionHandler = IResponseHandler<std::shared_ptr<ServiceRegistryPex>>;

    struct Request {
        /// Places the request and returns the registry's handle of it.
        std::function<void*(IServiceRegistry*)> issue = [](IServiceRegistry*) { return nullptr; };
        /// The connection is lost: what the request has reported is not known any more.
        std::function<void()> onDisconnect = [] {};
        void* handle = nullptr; ///< of the last issue; null while not issued
    };

    /// Subscribes to the state of the connection with `connect`, once, here. The object outlives the subscription.
    explicit RemoteRegistryHandler(const std::function<void(std::unique_ptr<ConnectionHandler>&& handler)>& connect);
    RemoteRegistryHandler(const RemoteRegistryHandler&) = delete;
    RemoteRegistryHandler& operator=(const RemoteRegistryHandler&) = delete;
    ~RemoteRegistryHandler() = default;

    /// Keeps the request, and issues it when there is a connection. Ids count up from 0.
    std::uint32_t execute(Request request);
    /// Ends the request, at the registry too. Unknown ids are ignored.
    void cancel(std::uint32_t id);
    /// The registry has ended the request: it is not issued any more, and there is nothing to cancel.
    void forget(std::uint32_t id);

private:
    class Dispatching;

    void connectionChanged(const std::shared_ptr<ServiceRegistryPex>& registry);
    void notDispatching() const;

    std::shared_ptr<ServiceRegistryPex> m_registry;
    std::map<std::uint32_t, Request> m_requests;
    std::uint32_t m_nextId = 0;
    std::mutex m_lock;
    std::atomic<bool> m_isDispatching{false};
};

} // namespace kesa::runtime::v02

#endif
