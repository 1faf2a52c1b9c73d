#ifndef KESA_RUNTIME_V02_MYCLIENTCONNECTIONLISTENER_H
#define KESA_RUNTIME_V02_MYCLIENTCONNECTIONLISTENER_H

#include <kesa/IClientConnectionListener.h>
#include <kesa/Response.h>
#include <runtime/v02/runtime/BackendList.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// Stands between one client object and all who asked for its locator: carries the backend's news onto the executor and
/// tells every handler there. Queued news refer to it weakly, so news of a proxy that was freed meanwhile are dropped.
///
/// Threads: the three notifications from any; everything else on the executor. Handlers may only post from inside a
/// call: the list they are called from must not change under it (asserted).
class BackendList::MyClientConnectionListener final : public IClientConnectionListener,
                                                      public std::enable_shared_from_this<MyClientConnectionListener> {
public:
    MyClientConnectionListener(const url& locator, commadapter::IBackend* backend,
                               std::shared_ptr<comm::ActiveObject> activeObject);

    void clientConnected() override;
    void clientDisconnected() override;
    void clientError(unsigned short code, const std::string& message) override;

    /// Before the first news can run.
    void setApi(std::shared_ptr<IKesaApi> api) { m_api = std::move(api); }
    const std::shared_ptr<IKesaApi>& api() const noexcept { return m_api; }
    commadapter::IBackend* backend() const noexcept { return m_backend; }
    std::size_t handlerCount() const noexcept { return m_handlers.size(); }

    /// Tells it the state as far as one is known, then keeps it.
    void addResponseHandler(std::unique_ptr<ProxyHandler>&& handler);
    void eraseResponseHandler(const void* handle);
    bool hasResponseHandler(const void* handle) const;

private:
    void changeConnectionState(bool connected);
    void tellChange();
    void connectionStateChanged(bool connected);
    void connectionFailed(unsigned short code, const std::string& message);
    template <class Call>
    void tellHandlers(const Call& call);
    void notTelling() const;

    const url m_locator;
    commadapter::IBackend* const m_backend;
    const std::shared_ptr<comm::ActiveObject> m_activeObject;
    /// In order of joining: a reproducible order costs nothing here.
    std::vector<std::unique_ptr<ProxyHandler>> m_handlers;
    std::shared_ptr<IKesaApi> m_api;
    bool m_connected = false;
    bool m_isTelling = false;
    optional<Response> m_lastError; ///< stays when a connection comes later

    std::mutex m_lock;          ///< of the next ones
    std::deque<bool> m_changes; ///< of the connection, that nobody has been told yet
    std::size_t m_posted = 0;   ///< events for them that are on their way
};

} // namespace kesa::runtime::v02

#endif
