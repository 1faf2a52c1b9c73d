#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <runtime/v02/runtime/EventLog.h>

#include <algorithm>

namespace kesa::runtime::v02 {

namespace {

using eventlog::CausedBy;
using TrackingObserver = responsehandlers::FuncResponseHandler<ServiceUpdate>;
using ObservedTracking = responsehandlers::DoOnEachResponseHandler<ServiceUpdate>;

/// Whether a tracker of a path is the one of this handle. Its address alone may be that of an earlier one.
bool isTracker(const QueryUpdateBookkeeper& tracker, const Handle& handle)
{
    return &tracker == handle.address && tracker.number() == handle.number;
}

/// Takes the tracker out of the list, if it is in it; it dies here unless an update is on its way to it.
void takeTracker(std::vector<std::shared_ptr<QueryUpdateBookkeeper>>& trackers, const Handle& handle)
{
    const auto found = std::find_if(trackers.begin(), trackers.end(),
                                    [&handle](const auto& tracker) { return isTracker(*tracker, handle); });
    if (found != trackers.end()) {
        const std::shared_ptr<QueryUpdateBookkeeper> leaving = std::move(*found);
        trackers.erase(found);
    }
}

/// The first news of a tracker, on the executor. It must come before the tracker joins the list: later news come on the
/// updater, and the chain has no lock.
void notify(TrackingHandler& chain, const ServiceDef& serviceDef, LoopWatch& watch)
{
    watch.tell("trackService", serviceDef.path.toString(),
               [&] { chain.onNext(ServiceUpdate(ResourceUpdateType::eADDED, serviceDef)); });
}

} // namespace

Disposable KesaRuntimeImpl::trackService(const std::string& path, std::unique_ptr<TrackingHandler>&& handler)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackService] '%s'", path.c_str());
    return trackService(path, true, std::move(handler));
}

Disposable KesaRuntimeImpl::trackService(const std::string& path, bool, std::unique_ptr<TrackingHandler>&& handler)
{
    if (refuseNull("trackService", path, handler.get()) || refuseBadPath("trackService", path, handler)) {
        return {};
    }
    auto observer = std::make_unique<TrackingObserver>(
        [this](const ServiceUpdate& update) {
            eventlog::trackingUpdate(m_eventSource, update);
            return false;
        },
        [this, path = path](const Response&) { eventlog::trackingStop(m_eventSource, path, CausedBy::eERROR); }, [] {});
    auto observed = std::make_unique<ObservedTracking>(std::move(observer), std::move(handler));
    auto chain = std::make_unique<QueryUpdateBookkeeper>(std::move(observed), newNumber());
    const Handle handle{chain.get(), chain->number()};
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path]'%s' handle='%p'", path.c_str(), handle.address);
    toExecutor([this, path = path, handle, chain = std::move(chain)]() mutable {
        addTracker(path, std::move(chain), handle);
    });
    return disposable([this, path = path, handle] { removeTracker(path, handle); });
}

void KesaRuntimeImpl::addTracker(const std::string& path, std::unique_ptr<QueryUpdateBookkeeper> chain,
                                 const Handle& handle)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path] new tracker for service '%s' handle='%p'", path.c_str(),
               handle.address);
    eventlog::trackingStart(m_eventSource, path);
    if (refuseWithoutRegistry("trackService", path, *chain)) {
        return;
    }
    const auto found = m_runtimeEntries.find(path);
    if (found == m_runtimeEntries.end()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path] service='%s' is not registerd or tracked handle='%p'",
                   path.c_str(), handle.address);
        m_runtimeEntries[path].trackers.push_back(std::move(chain));
        useRemoteRegistry(path, handle);
        return;
    }
    RuntimeEntry& entry = found->second;
    // An entry that is not configured and has no registrator may be another process's, whatever it once was.
    bool isRemote = false;
    if (entry.isProvidedByThisProcess && entry.optionalRegistrator) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackService, path] service='%s' already registered -> notifying tracker handle='%p'",
                   path.c_str(), handle.address);
        notify(*chain, *entry.optionalServiceDef, m_executorWatch);
    } else if (entry.isStaticConfigured) {
        // What this process is to provide itself is there once it has registered it.
        if (!entry.optionalServiceDef) {
            isRemote = !entry.isProvidedByThisProcess;
        } else if (!entry.isProvidedByThisProcess) {
            KESA_TRACE(MAIN_CHANNEL, 2,
                       "[trackService, path] service='%s' is static configured an in provided by other process "
                       "handle='%p'",
                       path.c_str(), handle.address);
            notify(*chain, *entry.optionalServiceDef, m_executorWatch);
        }
    } else if (entry.optionalServiceDef) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackService, path] service='%s' already tracked -> notifying tracker handle='%p'", path.c_str(),
                   handle.address);
        notify(*chain, *entry.optionalServiceDef, m_executorWatch);
        isRemote = !entry.remoteTrackingId;
    } else {
        isRemote = true;
    }
    entry.trackers.push_back(std::move(chain));
    if (isRemote) {
        useRemoteRegistry(path, handle);
    }
}

/// A tracker of a path that this process does not provide.
void KesaRuntimeImpl::useRemoteRegistry(const std::string& path, const Handle& handle)
{
    if (m_remoteRegistryHandler) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path] Service '%s' use remote registry handle='%p'", path.c_str(),
                   handle.address);
        trackServiceOnRegistry(path);
    }
}

void KesaRuntimeImpl::removeTracker(const std::string& path, const Handle& handle)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path Disposable] service='%s'", path.c_str());
    const auto found = m_runtimeEntries.find(path);
    if (found == m_runtimeEntries.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[trackService, path Disposable] no trackService found for service='%s' handle='%p'", path.c_str(),
                   handle.address);
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path Disposable] service='%s' handle='%p' DONE", path.c_str(),
                   handle.address);
        return;
    }
    RuntimeEntry& entry = found->second;
    takeTracker(entry.trackers, handle);
    if (entry.trackers.empty()) {
        cancelRemoteTracking(entry);
    }
    if (!entry.isStaticConfigured && entry.trackers.empty() && !isListed(path) && !entry.optionalRegistrator &&
        entry.optionalServiceDef) {
        takeBackFromQueries(*entry.optionalServiceDef);
        entry.optionalServiceDef.reset();
    }
    deleteRuntimeEntry(path);
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackService, path Disposable] service='%s' handle='%p' DONE", path.c_str(),
               handle.address);
    eventlog::trackingStop(m_eventSource, path, CausedBy::eUSER);
}

void KesaRuntimeImpl::triggerRuntimeUpdate(ResourceUpdateType type, const ServiceDef& serviceDef,
                                           const Trackers& trackers, const QueryTrackers& queryTrackers)
{
    onExecutor();
    // With nobody to tell, only a reader of the traces would have something of the copies and of waking the updater.
    if (trackers.empty() && queryTrackers.empty() && !MAIN_CHANNEL.isEnabled(2)) {
        return;
    }
    post(*m_updater, [this, update = ServiceUpdate(type, serviceDef), tCopy = trackers, qCopy = queryTrackers.copy(),
                      receipt = Receipt::take()]() mutable {
        const Receipt::Scope scope(std::move(receipt));
        const char* const path = update.element.path.toString().c_str();
        KESA_TRACE(MAIN_CHANNEL, 2, "[triggerRuntimeUpdate] service='%s' tCopy.size()=%zu qCopy.size()=%zu", path,
                   tCopy.size(), qCopy->size());
        deliverToTrackers(update, tCopy);
        KESA_TRACE(MAIN_CHANNEL, 2, "[triggerRuntimeUpdate] query size %zu service='%s'", qCopy->size(), path);
        deliverToQueryTrackers(update, *qCopy);
        KESA_TRACE(MAIN_CHANNEL, 2, "[triggerRuntimeUpdate] DONE service='%s'", path);
    });
}

/// Neighbouring updates go together: waking the updater for each would cost more than the updates.
void KesaRuntimeImpl::triggerQueryRuntimeUpdate(std::vector<ServiceUpdate>&& updates,
                                                const QueryTrackers& queryTrackers)
{
    onExecutor();
    if (updates.empty() || (queryTrackers.empty() && !MAIN_CHANNEL.isEnabled(2))) {
        return;
    }
    post(*m_updater,
         [this, updates = std::move(updates), qCopy = queryTrackers.copy(), receipt = Receipt::take()]() mutable {
             const Receipt::Scope scope(std::move(receipt));
             for (const ServiceUpdate& update : updates) {
                 deliverToQueryTrackers(update, *qCopy);
             }
         });
}

void KesaRuntimeImpl::deliverToTrackers(const ServiceUpdate& update, const Trackers& trackers)
{
    onUpdater();
    for (const auto& tracker : trackers) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[triggerRuntimeUpdate] tracker onNext service='%s'",
                   update.element.path.toString().c_str());
        m_updaterWatch.tell("trackService", update.element.path.toString(), [&] { tracker->onNext(update); });
    }
}

/// Every query tracker filters for itself.
void KesaRuntimeImpl::deliverToQueryTrackers(const ServiceUpdate& update, const QueryTrackers::List& queryTrackers)
{
    onUpdater();
    const std::string& path = update.element.path.toString();
    KESA_TRACE(MAIN_CHANNEL, 2, "[triggerQueryRuntimeUpdate] query size %zu service='%s'", queryTrackers.size(),
               path.c_str());
    for (const auto& each : queryTrackers) {
        m_updaterWatch.tell("trackServices", path, [&] { each.second->onNext(update); });
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[triggerQueryRuntimeUpdate] DONE service='%s'", path.c_str());
}

} // namespace kesa::runtime::v02
