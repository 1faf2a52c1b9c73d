#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <runtime/v02/runtime/TrackAndResolveServicesBookkeeper.h>

/// Track-and-resolve for every service a query matches: one bookkeeper in front of the client, one proxy per service.
/// See the form for one service on answers that come too late.
namespace kesa::runtime::v02 {

Disposable KesaRuntimeImpl::trackAndResolveServices(const Query& query,
                                                    std::unique_ptr<ResolvedServicesHandler>&& handler)
{
    if (refuseNull("trackAndResolveServices", query.pattern, handler.get())) {
        return {};
    }
    const Handle handle = newHandle(handler.get());
    toExecutor([this, query = query, handle, handler = std::move(handler)]() mutable {
        startTrackAndResolveQuery(query, handle, std::move(handler));
    });
    return disposable([this, handle] { disposeTrackAndResolveQuery(handle); });
}

void KesaRuntimeImpl::startTrackAndResolveQuery(const Query& query, const Handle& handle,
                                                std::unique_ptr<ResolvedServicesHandler> client)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices] queryParams='%s' response_handler='%p'",
               query.pattern.c_str(), handle.address);
    if (refuseWithoutRegistry("trackAndResolveServices", query.pattern, *client)) {
        return;
    }
    auto bookkeeper = std::make_unique<TrackAndResolveServicesBookkeeper>(std::move(client));
    m_trackAndResolvedServicesQuery.try_emplace(handle, TrackedAndResolvedQuery{std::move(bookkeeper), query.pattern});
    auto trackingHandler = postingHandler<ServiceUpdate>(
        [this, handle](const ServiceUpdate& update) { onNextOfQueryTracking(handle, update); },
        [this, handle](const Response& error) { onErrorOfQueryTracking(handle, error); },
        [this, handle] { onCompletedOfQueryTracking(handle); });
    m_trackedDisposable.try_emplace(handle, trackServices(query, std::move(trackingHandler)));
}

void KesaRuntimeImpl::onNextOfQueryTracking(const Handle& handle, const ServiceUpdate& update)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of tracking]");
    switch (update.type) {
    case ResourceUpdateType::eADDED:
        onAddedOfQueryTracking(handle, update.element);
        break;
    case ResourceUpdateType::eMODIFIED: // the open proxy stays on its locator
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of tracking] eMODIFIED hanlde='%p'",
                   handle.address);
        break;
    case ResourceUpdateType::eREMOVED:
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of tracking] eREMOVED");
        onRemovedOfQueryTracking(handle, update.element);
        break;
    }
}

void KesaRuntimeImpl::onAddedOfQueryTracking(const Handle& handle, const ServiceDef& serviceDef)
{
    const std::string& path = serviceDef.path.toString();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of tracking] eADDED service='%s' locators=%zu",
               path.c_str(), serviceDef.locators.size());
    const optional<url> locator = m_backendList.getBestLocator(serviceDef.locators);
    // As in the form for one service.
    if (locator && m_trackAndResolvedServicesQuery.count(handle) != 0) {
        const std::uint64_t token = newNumber();
        auto resolveHandler = createResolveTrackerForQueryServices(serviceDef, handle, token);
        OpenedProxy& proxy = m_resolvedServicesLocators[handle]
                                 .try_emplace(path, OpenedProxy{*locator, resolveHandler.get(), token})
                                 .first->second;
        openProxy(proxy, std::move(resolveHandler));
        return;
    }
    if (!locator) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveServices onNext of tracking] no url to resolve");
    }
    if (auto subscription = take(m_trackAndResolvedServicesQuery, handle)) {
        postError("trackAndResolveServices", subscription->pattern, std::move(subscription->client),
                  BackendList::noLocator(serviceDef.locators));
    } else {
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[trackAndResolveServices onNext of tracking] can not find m_trackAndResolveServiceHandler for "
                   "handle='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::onRemovedOfQueryTracking(const Handle& handle, const ServiceDef& serviceDef)
{
    const auto proxies = m_resolvedServicesLocators.find(handle);
    if (proxies == m_resolvedServicesLocators.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveServices onNext of tracking] no url to release found");
        return;
    }
    const auto proxy = proxies->second.extract(serviceDef.path.toString());
    if (proxy.empty()) {
        return;
    }
    freeProxy(proxy.mapped(), true);
    const auto subscription = m_trackAndResolvedServicesQuery.find(handle);
    if (subscription != m_trackAndResolvedServicesQuery.end()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of tracking] eREMOVED call onNext to client");
        m_executorWatch.tell("trackAndResolveServices", serviceDef.path.toString(),
                             [&] { subscription->second.client->onNext(ResolvedServiceState(serviceDef, nullopt)); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveServices onNext of tracking] response handle='%p' not found",
                   handle.address);
    }
}

void KesaRuntimeImpl::onErrorOfQueryTracking(const Handle& handle, const Response& error)
{
    onExecutor();
    if (auto subscription = take(m_trackAndResolvedServicesQuery, handle)) {
        postError("trackAndResolveServices", subscription->pattern, std::move(subscription->client), error);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices onError of tracking] no entry in m_trackAndResolvedServicesQuery for "
                   "handle=%p",
                   handle.address);
    }
}

void KesaRuntimeImpl::onCompletedOfQueryTracking(const Handle& handle)
{
    onExecutor();
    const auto subscription = m_trackAndResolvedServicesQuery.find(handle);
    if (subscription != m_trackAndResolvedServicesQuery.end()) {
        m_executorWatch.tell("trackAndResolveServices", subscription->second.pattern,
                             [&] { subscription->second.client->onCompleted(); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices onCompleted of tracking] no entry in m_trackAndResolvedServicesQuery for "
                   "handle=%p",
                   handle.address);
    }
}

std::unique_ptr<ProxyHandler> KesaRuntimeImpl::createResolveTrackerForQueryServices(const ServiceDef& serviceDef,
                                                                                    const Handle& handle,
                                                                                    std::uint64_t token)
{
    const auto resolved = std::make_shared<const ServiceDef>(serviceDef);
    return postingHandler<ProxyState>(
        [this, handle, token, resolved](const ProxyState& state) {
            onNextOfQueryResolve(handle, token, *resolved, state);
        },
        [this, handle, token, resolved](const Response& error) {
            onErrorOfQueryResolve(handle, token, resolved->path.toString(), error);
        },
        [this, handle, token, resolved] { onCompletedOfQueryResolve(handle, token, resolved->path.toString()); });
}

bool KesaRuntimeImpl::isCurrentProxy(const Handle& handle, std::uint64_t token, const std::string& path) const
{
    const auto proxies = m_resolvedServicesLocators.find(handle);
    if (proxies == m_resolvedServicesLocators.end()) {
        return false;
    }
    const auto proxy = proxies->second.find(path);
    return proxy != proxies->second.end() && proxy->second.token == token;
}

void KesaRuntimeImpl::onNextOfQueryResolve(const Handle& handle, std::uint64_t token, const ServiceDef& serviceDef,
                                           const ProxyState& state)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of resolve] for response_handle='%p' value present=%d",
               handle.address, static_cast<int>(state.has_value()));
    const auto subscription = m_trackAndResolvedServicesQuery.find(handle);
    if (subscription == m_trackAndResolvedServicesQuery.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackAndResolveServices onNext of resolve] response handle='%p' not found",
                   handle.address);
    } else if (isCurrentProxy(handle, token, serviceDef.path.toString())) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of resolve] call onNext");
        m_executorWatch.tell("trackAndResolveServices", serviceDef.path.toString(),
                             [&] { subscription->second.client->onNext(ResolvedServiceState(serviceDef, state)); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onNext of resolve] proxy is gone handle='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::onErrorOfQueryResolve(const Handle& handle, std::uint64_t token, const std::string& path,
                                            const Response& error)
{
    onExecutor();
    if (!isCurrentProxy(handle, token, path)) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onError of resolve] proxy is gone handle='%p'",
                   handle.address);
        return;
    }
    if (auto subscription = take(m_trackAndResolvedServicesQuery, handle)) {
        postError("trackAndResolveServices", subscription->pattern, std::move(subscription->client), error);
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices onError of resolve] no entry in m_trackAndResolvedServicesQuery for "
                   "handle=%p",
                   handle.address);
    }
    if (freeQueryProxies(handle)) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices onError of resolve] no url to release found for response_handler='%p'",
                   handle.address);
    }
    if (auto tracking = take(m_trackedDisposable, handle)) {
        tracking->dispose();
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices onError of resolve] found no track disposable for response_handler='%p'",
                   handle.address);
    }
}

void KesaRuntimeImpl::onCompletedOfQueryResolve(const Handle& handle, std::uint64_t token, const std::string& path)
{
    onExecutor();
    const auto subscription = m_trackAndResolvedServicesQuery.find(handle);
    if (subscription == m_trackAndResolvedServicesQuery.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices onCompleted of resolve] no entry in m_trackAndResolvedServicesQuery for "
                   "handle=%p",
                   handle.address);
    } else if (isCurrentProxy(handle, token, path)) {
        m_executorWatch.tell("trackAndResolveServices", subscription->second.pattern,
                             [&] { subscription->second.client->onCompleted(); });
    } else {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices onCompleted of resolve] proxy is gone handle='%p'",
                   handle.address);
    }
}

/// True when the subscription has none.
bool KesaRuntimeImpl::freeQueryProxies(const Handle& handle)
{
    const auto proxies = take(m_resolvedServicesLocators, handle);
    if (!proxies) {
        return true;
    }
    for (const auto& [path, proxy] : *proxies) {
        freeProxy(proxy, false);
    }
    return false;
}

void KesaRuntimeImpl::disposeTrackAndResolveQuery(const Handle& handle)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackAndResolveServices Disposable] response_handler='%p'", handle.address);
    if (freeQueryProxies(handle)) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices Disposable] no url to release found for response_handler='%p'",
                   handle.address);
    }
    if (auto tracking = take(m_trackedDisposable, handle)) {
        tracking->dispose();
    } else {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices Disposable] found no track disposable for response_handler='%p'",
                   handle.address);
    }
    if (!take(m_trackAndResolvedServicesQuery, handle)) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackAndResolveServices Disposable] found no trackAndResolvedServicesQuery for "
                   "response_handler='%p'",
                   handle.address);
    }
}

} // namespace kesa::runtime::v02
