#ifndef KESA_RUNTIME_V02_BACKENDLIST_H
#define KESA_RUNTIME_V02_BACKENDLIST_H

#include <comm/ActiveObject.h>
#include <kesa/Response.h>
#include <kesa/commadapter/IBackend.h>
#include <kesa/url.h>
#include <runtime/v02/runtime/HandlerTypes.h>
#include <runtime/v02/runtime/OpenProxies.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// The runtime's one contact with the communication layer: the started backends, the proxies opened on them (one
/// connection per locator, shared by all who ask for it) and the services provided on them.
///
/// Threads: the executor, asserted; only `shutdown` comes when that has stopped. Handlers are called on the executor.
class BackendList {
public:
    class MyClientConnectionListener;

    BackendList();
    BackendList(const BackendList&) = delete;
    BackendList& operator=(const BackendList&) = delete;
    ~BackendList();

    /// Makes and starts the backends of these names, in this order; unknown names are skipped.
    void startup(const std::string& processName, const std::vector<std::string>& backendNames,
                 const std::string& partition, std::shared_ptr<comm::ActiveObject> executor);
    /// Stops and destroys the backends. Open proxies and provided services stay; nothing is called any more.
    void shutdown();

    // What could not be provided leaves its reason in `obr::ErrorStorage`.

    /// Offers `service` on each locator, at every backend that can handle it. True when none could be provided.
    [[nodiscard]] bool provideURL(const std::vector<url>& locators, const std::shared_ptr<IKesaApi>& service);
    /// Offers `service` at every backend under a locator of the backend's choosing, appended to `serviceDef.locators`.
    /// True when no backend provided it.
    [[nodiscard]] bool providePath(const std::string& path, const std::shared_ptr<IKesaApi>& service,
                                   ServiceDef& serviceDef);
    /// Withdraws what is provided on these locators. No call into the services runs or comes after it returns.
    void unprovideURL(const std::vector<url>& locators);

    /// One of the locators addresses this very process.
    bool isLocalService(const std::vector<url>& locators) const;
    /// All others rely on finding this process, from now on.
    void stayFindable() const;
    bool isSupportedLocator(const url& locator) const;
    /// The first that a backend can handle.
    optional<url> getBestLocator(const std::vector<url>& locators) const;

    /// Joins `handler` to the proxy of the locator, which is opened if need be. It hears at once when that is connected
    /// already. The address of the handler is the handle for `freeProxy`. True when no backend could make a client
    /// object: the handler has had its 404 and is gone, there is nothing to free.
    [[nodiscard]] bool openProxy(const url& locator, std::unique_ptr<ProxyHandler>&& handler);
    /// The last of a locator's handlers takes the proxy with it, whatever `handle` says. `serviceRemoved` is passed on
    /// to the backend.
    void freeProxy(const url& locator, const void* handle, bool serviceRemoved);

    /// The error of whoever wants to reach a service at these locators, when no backend can: 404, with a reason.
    static Response noLocator(const std::vector<url>& locators);

    /// What other threads may look at. Never null; may be kept longer. Any thread.
    const std::shared_ptr<OpenProxies>& openProxies() const noexcept { return m_visibleProxies; }

    using Holds = std::vector<std::shared_ptr<const comm::LoopHold>>;
    /// What holds the loops of the backends, for any thread; may be kept longer.
    Holds holds() const;
    /// Has the backends tell what holds these loops, too, when they are asked what this process is.
    void describeHolds(const Holds& holds);

    /// Whether that handler waits for news of the locator.
    bool hasHandler(const url& locator, const void* handle) const;

private:
    void onExecutor() const;
    bool endProviding(bool failed) const;
    int provideOnBackends(const url& locator, const std::shared_ptr<IKesaApi>& service);

    std::string m_processName;
    std::vector<std::unique_ptr<commadapter::IBackend>> m_backends;
    std::map<std::string, std::shared_ptr<MyClientConnectionListener>> m_openProxies;
    const std::shared_ptr<OpenProxies> m_visibleProxies = std::make_shared<OpenProxies>();
    std::map<std::string, std::shared_ptr<IKesaApi>> m_providedServices;
    /// Backends hold plain pointers. What they may call is kept here under every locator they may call it by, since the
    /// table above has one key per service, and none for a service whose first locator is a key already.
    std::multimap<std::string, std::shared_ptr<IKesaApi>> m_callableServices;
    std::shared_ptr<comm::ActiveObject> m_activeObject;
};

} // namespace kesa::runtime::v02

#endif
