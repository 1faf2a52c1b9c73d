#include <runtime/v02/runtime/KesaRuntimeImpl.h>

/// One subscription stands in three tables: the client's handler, the tracking inside it, and the proxy while the
/// service is there. News of tracking and proxy are posted before they read the tables, so each may find that the
/// subscription, or the proxy it is about, is gone. An answer of a proxy that was replaced or freed meanwhile is
/// dropped: it would show the client what is gone, or end a subscription that is well.
namespace kesa::runtime::v02 {

Disposable KesaRuntimeImpl::trackAndResolveService(const std::string& path,
                                                   std::unique_ptr<ResolvedServiceHandler>&& handler)
{
    if (refuseNull("trackAndResolveService", path, handler.get()) ||
        refuseBadPath("trackAndResolveService", path, handler)) {
        return {};
    }
    const Handle handle = newHandle(handler.get());
    toExecutor([this, path = path, handle, handler = std::move(handler)]() mutable {
        startTrackAndResolve(path, handle, std::move(handler));
    });
    return disposable([this, handle] { disposeTrackAndResolve(handle); });
}

void KesaRuntimeImpl::startTrackAndResolve(const std::string& path, const Handle& handle,
                                           std::unique_ptr<ResolvedServiceHandler> client)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService] service='%s' handle='%p'", path.c_str(), handle.address);
    if (refuseWithoutRegistry("trackAndResolveService", path, *client)) {
        return;
    }
    m_trackAndResolveServiceHandler.try_emplace(handle, TrackedAndResolvedService{std::move(client), path});
    auto trackingHandler =
        postingHandler<ServiceUpdate>([this, handle](const ServiceUpdate& update) { onNextOfTracking(handle, update); },
                                      [this, handle](const Response& error) { onErrorOfTracking(handle, error); },
                                      [this, handle] { onCompletedOfTracking(handle); });
    m_trackedDisposable.try_emplace(handle, trackService(path, std::move(trackingHandler)));
}

void KesaRuntimeImpl::onNextOfTracking(const Handle& handle, const ServiceUpdate& update)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onNext of tracking] handle='%p'", handle.address);
    switch (update.type) {
    case ResourceUpdateType::eADDED:
        onAddedOfTracking(handle, update.element);
        break;
    case ResourceUpdateType::eMODIFIED: // the open proxy stays on its locator
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onNext of tracking] eMODIFIED hanlde='%p'",
                   handle.address);
        break;
    case ResourceUpdateType::eREMOVED:
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onNext of tracking] eREMOVED");
        onRemovedOfTracking(handle);
        break;
    }
}

void KesaRuntimeImpl::onAddedOfTracking(const Handle& handle, const ServiceDef& serviceDef)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onNext of tracking] eADDED service='%s' hanlde='%p'",
               serviceDef.path.toString().c_str(), handle.address);
    const optional<url> locator = m_backendList.getBestLocator(serviceDef.locators);
    // Whoever has disposed, or was told an error, hears of no proxy any more; perhaps nobody would free it.
    if (locator && m_trackAndResolveServiceHandler.count(handle) != 0) {
        const std::uint64_t token = newNumber();
        auto resolveHandler = createResolveTrackerForService(serviceDef, handle, token);
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onNext of tracking] insert");
        OpenedProxy& proxy =
            m_resolvedLocators.try_emplace(handle, OpenedProxy{*locator, resolveHandler.get(), token}).first->second;
        openProxy(proxy, std::move(resolveHandler));
        return;
    }
    if (!locator) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveService onNext of tracking] resolved url is null");
    }
    if (auto service = take(m_trackAndResolveServiceHandler, handle)) {
        postError("trackAndResolveService", service->path, std::move(service->client),
                  BackendList::noLocator(serviceDef.locators));
    } else {
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[trackAndResolveService onNext of tracking] can not find m_trackAndResolveServiceHandler for "
                   "handle='%p'it is already disposed",
                   handle.address);
    }
}

void KesaRuntimeImpl::onRemovedOfTracking(const Handle& handle)
{
    if (m_resolvedLocators.count(handle) == 0) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService onNext of tracking] can not find url to release response_handler='%p'",
                   handle.address);
        return;
    }
    const auto service = m_trackAndResolveServiceHandler.find(handle);
    if (service == m_trackAndResolveServiceHandler.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveService onNext of tracking] response handle='%p' not found",
                   handle.address);
    } else if (service->second.valuePropagated) {
        service->second.valuePropagated = false;
        m_executorWatch.tell("trackAndResolveService", service->second.path,
                             [&] { service->second.client->onNext(nullopt); });
    }
    freeProxy(*take(m_resolvedLocators, handle), true);
}

void KesaRuntimeImpl::onErrorOfTracking(const Handle& handle, const Response& error)
{
    onExecutor();
    if (auto service = take(m_trackAndResolveServiceHandler, handle)) {
        postError("trackAndResolveService", service->path, std::move(service->client), error);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[trackAndResolveService onError] can not find m_trackAndResolveServiceHandler for handle='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::onCompletedOfTracking(const Handle& handle)
{
    onExecutor();
    const auto service = m_trackAndResolveServiceHandler.find(handle);
    if (service != m_trackAndResolveServiceHandler.end()) {
        m_executorWatch.tell("trackAndResolveService", service->second.path,
                             [&] { service->second.client->onCompleted(); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[trackAndResolveService onCompleted of tracking] can not find m_trackAndResolveServiceHandler for "
                   "handle='%p'",
                   handle.address);
    }
}

std::unique_ptr<ProxyHandler> KesaRuntimeImpl::createResolveTrackerForService(const ServiceDef& serviceDef,
                                                                              const Handle& handle, std::uint64_t token)
{
    auto resolved = std::make_shared<const ServiceDef>(serviceDef);
    return postingHandler<ProxyState>(
        [this, handle, token, resolved = std::move(resolved)](const ProxyState& state) {
            onNextOfResolve(handle, token, *resolved, state);
        },
        [this, handle, token](const Response& error) { onErrorOfResolve(handle, token, error); },
        [this, handle, token] { onCompletedOfResolve(handle, token); });
}

bool KesaRuntimeImpl::isCurrentProxy(const Handle& handle, std::uint64_t token) const
{
    const auto proxy = m_resolvedLocators.find(handle);
    return proxy != m_resolvedLocators.end() && proxy->second.token == token;
}

void KesaRuntimeImpl::onNextOfResolve(const Handle& handle, std::uint64_t token, const ServiceDef& serviceDef,
                                      const ProxyState& state)
{
    onExecutor();
    const auto found = m_trackAndResolveServiceHandler.find(handle);
    if (found == m_trackAndResolveServiceHandler.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveService onNext of resolve] response handle='%p' not found",
                   handle.address);
        return;
    }
    if (!isCurrentProxy(handle, token)) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onNext of resolve] proxy is gone handle='%p'",
                   handle.address);
        return;
    }
    TrackedAndResolvedService& service = found->second;
    if (state && !service.valuePropagated) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackAndResolveService onNext of resolve] has value send it to client handle='%p'",
                   handle.address);
        service.valuePropagated = true;
        m_executorWatch.tell("trackAndResolveService", service.path,
                             [&] { service.client->onNext(ResolvedService(serviceDef, *state)); });
    } else if (state) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackAndResolveService onNext of resolve] has value but was already propagated to client "
                   "handle='%p'",
                   handle.address);
    } else if (service.valuePropagated) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackAndResolveService onNext of resolve] has no value send nullopt to client handle='%p'",
                   handle.address);
        service.valuePropagated = false;
        m_executorWatch.tell("trackAndResolveService", service.path, [&] { service.client->onNext(nullopt); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackAndResolveService onNext of resolve] has no value but was already propagated to client "
                   "handle='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::onErrorOfResolve(const Handle& handle, std::uint64_t token, const Response& error)
{
    onExecutor();
    if (!isCurrentProxy(handle, token)) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onError of resolve] proxy is gone handle='%p'",
                   handle.address);
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveService onError tracking] error='%s'",
               Response::getErrorMessageWithCode(error).c_str());
    if (auto service = take(m_trackAndResolveServiceHandler, handle)) {
        postError("trackAndResolveService", service->path, std::move(service->client), error);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService onError tracking] found no trackAndResolverSerivce handle='%p'",
                   handle.address);
    }
    if (const auto proxy = take(m_resolvedLocators, handle)) {
        freeProxy(*proxy, false);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService onError tracking] can not find url  to release handle='%p'",
                   handle.address);
    }
    if (auto tracking = take(m_trackedDisposable, handle)) {
        tracking->dispose();
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService onError tracking] can not find m_trackedDisposable to dispose handle='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::onCompletedOfResolve(const Handle& handle, std::uint64_t token)
{
    onExecutor();
    const auto service = m_trackAndResolveServiceHandler.find(handle);
    if (service == m_trackAndResolveServiceHandler.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService onCompleted resolve] found no trackAndResolverSerivce handle='%p'",
                   handle.address);
    } else if (isCurrentProxy(handle, token)) {
        m_executorWatch.tell("trackAndResolveService", service->second.path,
                             [&] { service->second.client->onCompleted(); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService onCompleted resolve] proxy is gone handle='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::disposeTrackAndResolve(const Handle& handle)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService Disposable] handle='%p'", handle.address);
    if (const auto proxy = take(m_resolvedLocators, handle)) {
        freeProxy(*proxy, false);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveService Disposable] can not find url  to release handle='%p'",
                   handle.address);
    }
    if (auto tracking = take(m_trackedDisposable, handle)) {
        tracking->dispose();
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService Disposable] can not find m_trackedDisposable to dispose handle='%p'",
                   handle.address);
    }
    if (!take(m_trackAndResolveServiceHandler, handle)) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveService Disposable] can not find m_trackAndResolveServiceHandler handle='%p'",
                   handle.address);
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveService Disposable] DONE handle='%p'", handle.address);
}

} // namespace kesa::runtime::v02
