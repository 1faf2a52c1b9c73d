#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <runtime/v02/runtime/EventLog.h>
#include <runtime/v02/runtime/WatchedHandler.h>

namespace kesa::runtime::v02 {

namespace {

constexpr const char* RESOLVE = "resolveService";

} // namespace

Disposable KesaRuntimeImpl::resolveService(const url& locator, std::unique_ptr<ProxyHandler>&& handler)
{
    if (refuseNull("resolveService, locator", locator.toString(), handler.get())) {
        return {};
    }
    const Handle handle = newHandle(handler.get());
    toExecutor([this, locator = locator, handle, handler = std::move(handler)]() mutable {
        KESA_TRACE(MAIN_CHANNEL, 2, "[resolveService, locator] '%s' locator='%p'", locator.toString().c_str(),
                   handle.address);
        if (!refuseWithoutRegistry(RESOLVE, locator.toString(), *handler)) {
            resolve({locator}, std::move(handler), handle);
        }
    });
    return disposable([this, handle] { releaseResolve(handle); });
}

Disposable KesaRuntimeImpl::resolveService(const ServiceDef& serviceDef, std::unique_ptr<ProxyHandler>&& handler)
{
    if (refuseNull("resolveService", serviceDef.path.toString(), handler.get())) {
        return {};
    }
    const Handle handle = newHandle(handler.get());
    toExecutor([this, serviceDef = serviceDef, handle, handler = std::move(handler)]() mutable {
        KESA_TRACE(MAIN_CHANNEL, 2, "[resolveService] service='%s' handle='%p'", serviceDef.path.toString().c_str(),
                   handle.address);
        if (!refuseWithoutRegistry(RESOLVE, serviceDef.path.toString(), *handler)) {
            resolve(serviceDef.locators, std::move(handler), handle);
        }
    });
    return disposable([this, handle] { releaseResolve(handle); });
}

void KesaRuntimeImpl::resolve(const std::vector<url>& urls, std::unique_ptr<ProxyHandler>&& handler,
                              const Handle& handle)
{
    onExecutor();
    const optional<url> best = m_backendList.getBestLocator(urls);
    if (!best) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[resolve] no resolveable url found handle='%p'", handle.address);
        postError(RESOLVE, urls.empty() ? std::string() : urls.front().toString(), std::move(handler),
                  BackendList::noLocator(urls));
        return;
    }
    const url& uri = *best;
    auto observer = std::make_unique<responsehandlers::FuncResponseHandler<ProxyState>>(
        [this, uri = uri](const ProxyState& state) {
            if (state) {
                eventlog::connectServiceConnected(m_eventSource, uri);
            } else {
                eventlog::connectServiceLost(m_eventSource, uri);
            }
            return false;
        },
        [this, uri = uri](const Response& error) { eventlog::connectError(m_eventSource, uri, error); }, [] {});
    auto watched =
        std::make_unique<WatchedHandler<ProxyState>>(std::move(handler), m_executorWatch, RESOLVE, uri.toString());
    auto chain = std::make_unique<responsehandlers::DoOnEachResponseHandler<ProxyState>>(std::move(observer),
                                                                                         std::move(watched));
    const ProxyHandler* const address = chain.get();
    OpenedProxy& proxy = m_resolvedLocators.try_emplace(handle, OpenedProxy{uri, address, newNumber()}).first->second;
    openProxy(proxy, std::move(chain));
    if (proxy.isRefused) {
        m_resolvedLocators.erase(handle); // the client has had its error
    }
    eventlog::connectStart(m_eventSource, uri);
}

void KesaRuntimeImpl::releaseResolve(const Handle& handle)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[releaseResolve] handle='%p'", handle.address);
    if (const optional<OpenedProxy> proxy = take(m_resolvedLocators, handle)) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[releaseResolve] url to release found] handle='%p'", handle.address);
        freeProxy(*proxy, false);
        eventlog::connectStop(m_eventSource, proxy->locator);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4, "[releaseResolve] url to release not found handle='%p'", handle.address);
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[releaseResolve] DONE handle='%p'", handle.address);
}

/// Opens the proxy that `proxy`, in its table already, stands for.
void KesaRuntimeImpl::openProxy(OpenedProxy& proxy, std::unique_ptr<ProxyHandler>&& handler)
{
    proxy.isRefused = m_backendList.openProxy(proxy.locator, std::move(handler));
}

void KesaRuntimeImpl::freeProxy(const OpenedProxy& proxy, bool serviceRemoved)
{
    if (!proxy.isRefused) {
        m_backendList.freeProxy(proxy.locator, proxy.handler, serviceRemoved);
    }
}

} // namespace kesa::runtime::v02
