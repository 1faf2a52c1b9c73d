// Queries that are forwarded to the registry, and the paths that they list.
#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <runtime/v02/runtime/identity.h>

namespace kesa::runtime::v02 {

void KesaRuntimeImpl::queryServiceOnRegistry(const Query& query, const Handle& handle,
                                             const std::vector<ServiceUpdate>& initialUpdates)
{
    onExecutor();
    RemoteQuery& record = m_remoteQueries[handle];
    for (const ServiceUpdate& update : initialUpdates) {
        list(record, update.element.path.toString());
    }
    RemoteRegistryHandler::Request request;
    request.issue = [this, query = query, handle](serviceregistry::IServiceRegistry* registry, const Issue& issue) {
        auto handler = std::make_unique<responsehandlers::FuncResponseHandler<std::vector<RegistryUpdate>>>(
            [this, query, handle, issue](const std::vector<RegistryUpdate>& updates) {
                if (!updates.empty()) {
                    const std::string type = RegistryUpdate::enumToValue(updates.front().updateType).value_or("");
                    KESA_TRACE(MAIN_CHANNEL, 2,
                               "[queryServiceOnRegistry direct handler] Received %zu RegistryUpdates for query '%s' "
                               "updateType='%s'",
                               updates.size(), query.pattern.c_str(), type.c_str());
                }
                handOver([this, query = query, handle, issue, updates = updates] {
                    onRemoteQueryAnswer(query, handle, issue, updates);
                });
                return false;
            },
            [query](const Response& error) { traceRefusal("queryServiceOnRegistry", query.pattern, error); }, [] {});
        return registry->queryRegistry(std::move(handler), query);
    };
    request.onDisconnect = [this, handle](std::uint32_t) { toExecutor([this, handle] { remoteQueryLost(handle); }); };
    record.requestId = m_remoteRegistryHandler->execute(std::move(request));
}

void KesaRuntimeImpl::onRemoteQueryAnswer(const Query& query, const Handle& handle, const Issue& issue,
                                          const std::vector<RegistryUpdate>& updates)
{
    onExecutor();
    const auto found = m_remoteQueries.find(handle);
    if (found == m_remoteQueries.end()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[queryServiceOnRegistry] remoteQuery already disposed handle='%p'",
                   handle.address);
        return;
    }
    if (isLate(issue, "onRemoteQueryAnswer", query.pattern)) {
        return;
    }
    if (updates.empty()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[queryServiceOnRegistry] Received %zu RegistryUpdates for query '%s'",
                   updates.size(), query.pattern.c_str());
    } else {
        const std::string type = RegistryUpdate::enumToValue(updates.front().updateType).value_or("");
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[queryServiceOnRegistry] Received %zu RegistryUpdates for query '%s' updateType='%s'",
                   updates.size(), query.pattern.c_str(), type.c_str());
    }
    handleRemoteQueryOnRegistryUpdate(updates, found->second);
}

void KesaRuntimeImpl::handleRemoteQueryOnRegistryUpdate(const std::vector<RegistryUpdate>& updates, RemoteQuery& record)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteQueryOnRegistryUpdate]");
    std::vector<ServiceUpdate> added; // and not told yet
    for (const RegistryUpdate& update : updates) {
        const std::string& path = update.element->path.toString();
        KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteQueryOnRegistryUpdate] service='%s' locators='%zu'", path.c_str(),
                   update.element->locators.size());
        const auto known = m_runtimeEntries.find(path);
        const bool isRegisteredHere =
            known != m_runtimeEntries.end() && known->second.optionalRegistrator && known->second.optionalServiceDef;
        if (isOwn(*update.element, isRegisteredHere ? &*known->second.optionalServiceDef : nullptr)) {
            KESA_TRACE(MAIN_CHANNEL, 2,
                       "[handleRemoteQueryOnRegistryUpdate] service='%s' was provided by this process, the update was "
                       "already send by the runtime -> ignore",
                       path.c_str());
            continue;
        }
        switch (update.updateType) {
        case UpdateType::ADDED:
            KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteQueryOnRegistryUpdate] service='%s'eADDED", path.c_str());
            handleRemoteServiceRegistered(update.element, record, added);
            break;
        case UpdateType::REMOVED:
            KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteQueryOnRegistryUpdate] service='%s' eREMOVED", path.c_str());
            record.hidden.erase(path);
            if (unlist(record, path)) {
                triggerQueryRuntimeUpdate(std::exchange(added, {}), m_queryTrackers);
                removeUnlessRegisteredHere(path, "handleRemoteQueryOnRegistryUpdate");
            }
            break;
        case UpdateType::MODIFIED:
            break;
        }
    }
    triggerQueryRuntimeUpdate(std::move(added), m_queryTrackers);
    KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteQueryOnRegistryUpdate] DONE");
}

/// Appends to `added` what the queries are to be told.
void KesaRuntimeImpl::handleRemoteServiceRegistered(const std::shared_ptr<ServiceDef>& element, RemoteQuery& record,
                                                    std::vector<ServiceUpdate>& added)
{
    const std::string& path = element->path.toString();
    KESA_TRACE(MAIN_CHANNEL, 2,
               "[handleRemoteServiceRegistered] new registration for remote service '%s' locators='%zu'", path.c_str(),
               element->locators.size());
    list(record, path);
    const auto [found, isNew] = m_runtimeEntries.try_emplace(path);
    RuntimeEntry& entry = found->second;
    if (entry.optionalRegistrator) {
        // This process registers the path at the same time. Once it has been refused, the other's service is there.
        KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteServiceRegistered] registered here -> kept aside service='%s'",
                   path.c_str());
        record.hidden[path] = element;
        return;
    }
    if (!entry.optionalServiceDef) {
        // New, or kept by trackers whose own tracking has not told them yet: nobody else would remove what a query
        // told.
        KESA_TRACE(MAIN_CHANNEL, 1, "[handleRemoteServiceRegistered] %s service='%s'",
                   isNew ? "new entry" : "fill entry of trackers", path.c_str());
        entry.optionalServiceDef = *element;
    } else {
        KESA_TRACE(MAIN_CHANNEL, 1, "[handleRemoteServiceRegistered] known already service='%s'", path.c_str());
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[handleRemoteServiceRegistered] registration for remote service '%s' accepted",
               path.c_str());
    added.emplace_back(ResourceUpdateType::eADDED, *element);
}

void KesaRuntimeImpl::remoteQueryLost(const Handle& handle)
{
    onExecutor();
    const auto found = m_remoteQueries.find(handle);
    if (found == m_remoteQueries.end()) {
        return;
    }
    RemoteQuery& record = found->second;
    record.hidden.clear();
    const auto lost = std::exchange(record.services, {});
    for (const std::string& path : lost) {
        uncount(path);
        removeUnlessRegisteredHere(path, "handleRemoteServiceUnregistered#query");
    }
}

/// The registry does not list the service any more. What this process has registered is there all the same.
void KesaRuntimeImpl::removeUnlessRegisteredHere(const std::string& path, const char* caller)
{
    const auto found = m_runtimeEntries.find(path);
    if (found != m_runtimeEntries.end() && found->second.optionalRegistrator) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[%s] registered here -> kept service='%s'", caller, path.c_str());
        return;
    }
    findAndUnregister(path, caller);
    // An entry that trackers keep loses the record, too. Their own tracking may have been begun after the service went:
    // it will not say so, and whoever comes next would be told of a service that is gone. One that has answered will.
    const auto kept = m_runtimeEntries.find(path);
    if (kept != m_runtimeEntries.end() && !kept->second.isStaticConfigured && !kept->second.isTrackingAnswered) {
        kept->second.optionalServiceDef.reset();
    }
}

/// Ends the forwarded query. The entries that it alone has kept go; paths that are tracked, too, are followed on their
/// own from now on. False when there is none.
bool KesaRuntimeImpl::endRemoteQuery(const Handle& handle)
{
    const optional<RemoteQuery> record = take(m_remoteQueries, handle);
    if (!record) {
        return false;
    }
    if (m_remoteRegistryHandler) {
        m_remoteRegistryHandler->cancel(record->requestId);
    }
    std::vector<std::string> unused;
    for (const std::string& path : record->services) {
        uncount(path);
        const auto found = m_runtimeEntries.find(path);
        if (found == m_runtimeEntries.end() || found->second.isStaticConfigured || found->second.optionalRegistrator) {
            continue;
        }
        if (found->second.trackers.empty()) {
            if (!isListed(path)) {
                unused.push_back(path);
            }
            continue;
        }
        if (!found->second.remoteTrackingId && m_remoteRegistryHandler) {
            KESA_TRACE(MAIN_CHANNEL, 2,
                       "[trackServices query Disposable] delete query and setup remote tracker for service '%s' use "
                       "remote registry",
                       path.c_str());
            trackServiceOnRegistry(path);
        }
        if (!isListed(path)) {
            doubtUntilTold(found->second);
        }
    }
    for (const std::string& path : unused) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices query Disposable] erase service='%s' handle='%p'", path.c_str(),
                   handle.address);
        const auto node = m_runtimeEntries.extract(path);
        if (node.mapped().optionalServiceDef) {
            takeBackFromQueries(*node.mapped().optionalServiceDef);
        }
    }
    return true;
}

/// Trackers know the service from a query that ends now, and their own tracking is under way. Should the service go
/// before the registry begins that, nobody would say so: it is taken back, and comes again with the first answer.
void KesaRuntimeImpl::doubtUntilTold(RuntimeEntry& entry)
{
    if (!m_remoteRegistryHandler || entry.isTrackingAnswered || !entry.optionalServiceDef) {
        return;
    }
    const ServiceDef doubted = takeRecord(entry);
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackServices query Disposable] taken back until tracked service='%s'",
               doubted.path.toString().c_str());
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, doubted, entry.trackers, m_queryTrackers);
}

/// The record of a service is dropped although nobody has said that it is gone: nobody follows it any more, and no
/// query lists it. A query may have shown it all the same, because of others' news, while its own was under way; it is
/// taken back, and that news, or the first answer after a loss, brings it again if it is there.
void KesaRuntimeImpl::takeBackFromQueries(const ServiceDef& dropped)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[takeBackFromQueries] service='%s'", dropped.path.toString().c_str());
    triggerQueryRuntimeUpdate({ServiceUpdate(ResourceUpdateType::eREMOVED, dropped)}, m_queryTrackers);
}

void KesaRuntimeImpl::list(RemoteQuery& record, const std::string& path)
{
    if (record.services.insert(path).second) {
        ++m_listed[path];
    }
}

/// True when the query had reported it.
bool KesaRuntimeImpl::unlist(RemoteQuery& record, const std::string& path)
{
    if (record.services.erase(path) == 0) {
        return false;
    }
    uncount(path);
    return true;
}

void KesaRuntimeImpl::uncount(const std::string& path)
{
    const auto found = m_listed.find(path);
    if (--found->second == 0) {
        m_listed.erase(found);
    }
}

bool KesaRuntimeImpl::isListed(const std::string& path) const
{
    return m_listed.count(path) != 0;
}

} // namespace kesa::runtime::v02
