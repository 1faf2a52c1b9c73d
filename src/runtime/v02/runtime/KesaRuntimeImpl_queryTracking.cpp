#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <kesa/PathPatterns.h>
#include <kesa/serviceregistry/matchesQuery.h>
#include <obr/ErrorStorage.h>
#include <runtime/v02/runtime/EventLog.h>
#include <runtime/v02/runtime/QueryUpdateBookkeeper.h>

namespace kesa::runtime::v02 {

namespace {

using eventlog::CausedBy;

/// Lets through what the query asks for. A removal also passes when its service was announced: its record may have
/// changed since so that it does not match any more, and the client would keep what is gone.
std::unique_ptr<TrackingHandler> filtered(std::unique_ptr<QueryUpdateBookkeeper> bookkeeper,
                                          std::shared_ptr<const Query> query, PathPatterns patterns)
{
    const QueryUpdateBookkeeper& inside = *bookkeeper;
    return std::make_unique<responsehandlers::FilteringResponseHandler<ServiceUpdate>>(
        std::move(bookkeeper),
        [&inside, query = std::move(query), patterns = std::move(patterns)](const ServiceUpdate& update) {
            KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices] mapped_chainer_response_handler");
            return matchesQuery(update.element, *query, patterns) ||
                   (update.type == ResourceUpdateType::eREMOVED && inside.hasAnnounced(update.element.path.toString()));
        });
}

} // namespace

Disposable KesaRuntimeImpl::trackServices(const Query& query, std::unique_ptr<TrackingHandler>&& handler)
{
    if (refuseNull("trackServices", query.pattern, handler.get())) {
        return {};
    }
    const Handle handle = newHandle(handler.get());
    toExecutor([this, query = query, handle, handler = std::move(handler)]() mutable {
        startQuery(query, handle, std::move(handler));
    });
    return disposable([this, query = query, handle] { disposeQuery(query, handle); });
}

void KesaRuntimeImpl::startQuery(const Query& query, const Handle& handle, std::unique_ptr<TrackingHandler> handler)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices] queryParams pattern='%s'", query.pattern.c_str());
    eventlog::queryStart(m_eventSource, query);
    if (refuseWithoutRegistry("trackServices", query.pattern, *handler)) {
        return;
    }
    const optional<PathPatterns> patterns = PathPatterns::createFromGlob(query.pattern);
    if (!patterns) {
        postError("trackServices", query.pattern, std::move(handler),
                  Response::createErrorResponse(400, obr::ErrorStorage::takeReason()));
        return;
    }
    const std::vector<ServiceUpdate> initialUpdates = initialMatches(query, *patterns);
    auto bookkeeper = std::make_unique<QueryUpdateBookkeeper>(std::move(handler));
    if (!initialUpdates.empty()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices] found %zu services matching query '%s' -> notifying client",
                   initialUpdates.size(), query.pattern.c_str());
    }
    // Before the chain joins the list: later news come on the updater, and the chain has no lock.
    for (const ServiceUpdate& update : initialUpdates) {
        m_executorWatch.tell("trackServices", update.element.path.toString(), [&] { bookkeeper->onNext(update); });
    }
    const auto shared = std::make_shared<const Query>(query);
    auto observer = std::make_unique<responsehandlers::FuncResponseHandler<ServiceUpdate>>(
        [this, shared](const ServiceUpdate& update) {
            eventlog::queryUpdate(m_eventSource, *shared, update);
            return false;
        },
        [this, shared](const Response&) { eventlog::queryStop(m_eventSource, *shared, CausedBy::eERROR); }, [] {});
    m_queryTrackers.add(handle, std::make_shared<responsehandlers::DoOnEachResponseHandler<ServiceUpdate>>(
                                    std::move(observer), filtered(std::move(bookkeeper), shared, *patterns)));
    if (m_remoteRegistryHandler) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices] setting up query on remote kesa registry for '%s'",
                   query.pattern.c_str());
        queryServiceOnRegistry(query, handle, initialUpdates);
    }
}

/// What this process has registered and the query asks for.
std::vector<ServiceUpdate> KesaRuntimeImpl::initialMatches(const Query& query, const PathPatterns& patterns) const
{
    std::vector<ServiceUpdate> updates;
    for (const auto& [path, entry] : m_runtimeEntries) {
        if (entry.optionalRegistrator && entry.optionalServiceDef &&
            matchesQuery(*entry.optionalServiceDef, query, patterns)) {
            KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices] ServiceDef locators='%zu'",
                       entry.optionalServiceDef->locators.size());
            updates.emplace_back(ResourceUpdateType::eADDED, *entry.optionalServiceDef);
        }
    }
    return updates;
}

void KesaRuntimeImpl::disposeQuery(const Query& query, const Handle& handle)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices query Disposable] handle='%p'", handle.address);
    if (!m_queryTrackers.take(handle)) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackServices query Disposable] no trackService found for handle='%p'",
                   handle.address);
    }
    if (!endRemoteQuery(handle)) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackServices query Disposable] no remoteQuery entry found for handle='%p'",
                   handle.address);
    }
    eventlog::queryStop(m_eventSource, query, CausedBy::eUSER);
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices query Disposable DONE] handle='%p'", handle.address);
}

} // namespace kesa::runtime::v02
