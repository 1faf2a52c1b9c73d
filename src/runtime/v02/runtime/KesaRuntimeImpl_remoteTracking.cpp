// Paths that are tracked at the registry, each on its own.
#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <kesa/reasonOf.h>
#include <runtime/v02/runtime/identity.h>

namespace kesa::runtime::v02 {

/// Whether the registry tells of a service of this process. A record without metainfo does not name its provider: then
/// it is one whose locators lead here, or what is registered here (`registered`, if anything is).
bool KesaRuntimeImpl::isOwn(const ServiceDef& told, const ServiceDef* registered) const
{
    const std::string_view provider = providerOf(told);
    if (!provider.empty()) {
        return provider == m_proc_name;
    }
    return m_backendList.isLocalService(told.locators) ||
           (registered != nullptr && isSameRegistration(*registered, told));
}

void KesaRuntimeImpl::trackServiceOnRegistry(const std::string& path)
{
    onExecutor();
    RuntimeEntry& entry = m_runtimeEntries.find(path)->second;
    if (entry.remoteTrackingId) {
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[trackService] Remote tracker for service '%s' already established. Current count is '%zu'",
                   path.c_str(), entry.trackers.size());
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 2,
               "[trackServiceOnRegistry] Service '%s' is externally hosted -> setting up remote tracker", path.c_str());
    entry.isTrackingAnswered = false;
    RemoteRegistryHandler::Request request;
    request.issue = [this, path = path](serviceregistry::IServiceRegistry* registry, const Issue& issue) {
        auto handler = std::make_unique<responsehandlers::FuncResponseHandler<RegistryUpdate>>(
            [this, path, issue](const RegistryUpdate& update) {
                handOver([this, path = path, issue, update = update] {
                    const std::string type = RegistryUpdate::enumToValue(update.updateType).value_or("");
                    KESA_TRACE(MAIN_CHANNEL, 2,
                               "[trackServiceOnRegistry onNext] Received RegistryUpdate '%s' for service '%s'",
                               type.c_str(), path.c_str());
                    updateRemoteTrackedService(update, issue);
                });
                return false;
            },
            [path](const Response& error) { traceRefusal("trackServiceOnRegistry", path, error); }, [] {});
        return registry->trackService(std::move(handler), Path(path), true);
    };
    request.onDisconnect = [this, path = path](std::uint32_t id) {
        toExecutor([this, path = path, id] { remoteTrackingLost(path, id); });
    };
    entry.remoteTrackingId = m_remoteRegistryHandler->execute(std::move(request));
}

/// What the registry will not tell, as it has too much to do for this user already. Nobody else hears of it: whoever
/// asks goes on to ask, at the next connection, and of what this process has itself he is told.
void KesaRuntimeImpl::traceRefusal(const char* operation, const std::string& subject, const Response& error)
{
    if (error.getStatus() != 503) { // of a lost connection, which is told of elsewhere
        KESA_TRACE(MAIN_CHANNEL, 3, "[%s] the registry refuses to tell of '%s': %s", operation, subject.c_str(),
                   reasonOf(error).c_str());
    }
}

/// Ends the tracking at the registry, if there is one; its answers on the way do not count any more.
void KesaRuntimeImpl::cancelRemoteTracking(RuntimeEntry& entry)
{
    if (m_remoteRegistryHandler && entry.remoteTrackingId) {
        m_remoteRegistryHandler->cancel(*entry.remoteTrackingId);
    }
    entry.remoteTrackingId.reset();
    entry.isTrackingAnswered = false;
}

/// A registration has ended on the path, after `eREMOVED` has been sent: who still watches it has to hear of other
/// processes' services there. A tracking that ran beside the registration may have told of such a service already, so
/// it is begun anew; what a query told is still known.
void KesaRuntimeImpl::followRemotely(const std::string& path)
{
    onExecutor();
    if (!m_remoteRegistryHandler) {
        return;
    }
    std::vector<ServiceUpdate> added;
    for (auto& [handle, query] : m_remoteQueries) {
        if (const auto node = query.hidden.extract(path); !node.empty()) {
            KESA_TRACE(MAIN_CHANNEL, 2, "[followRemotely] of another process, kept aside so far: service='%s'",
                       path.c_str());
            handleRemoteServiceRegistered(node.mapped(), query, added);
        } else {
            unlist(query, path); // it was a local match
        }
    }
    triggerQueryRuntimeUpdate(std::move(added), m_queryTrackers);
    const auto found = m_runtimeEntries.find(path);
    if (found != m_runtimeEntries.end() && !found->second.isStaticConfigured && !found->second.trackers.empty()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[followRemotely] still tracked service='%s'", path.c_str());
        cancelRemoteTracking(found->second);
        trackServiceOnRegistry(path);
    }
}

void KesaRuntimeImpl::updateRemoteTrackedService(const RegistryUpdate& update, const Issue& issue)
{
    onExecutor();
    const std::string path = update.element->path.toString();
    RuntimeEntry* const entry =
        entryOfIssue(path, &RuntimeEntry::remoteTrackingId, issue, "updateRemoteTrackedService");
    switch (update.updateType) {
    case UpdateType::ADDED:
        KESA_TRACE(MAIN_CHANNEL, 2, "[updateRemoteTrackedService] eADDED for service='%s' '%p'", path.c_str(),
                   static_cast<const void*>(&update));
        if (entry == nullptr) {
            KESA_TRACE(MAIN_CHANNEL, 3, "[updateRemoteTrackedService] Service '%s' already unregistered -> ignoring",
                       path.c_str());
            break;
        }
        if (entry->optionalRegistrator && entry->optionalServiceDef &&
            !isOwn(*update.element, &*entry->optionalServiceDef)) {
            // Another's, for which the registry is going to refuse the own one: then the path is tracked anew.
            KESA_TRACE(MAIN_CHANNEL, 2, "[updateRemoteTrackedService] registered here -> ignoring service='%s'",
                       path.c_str());
            break;
        }
        if (!entry->optionalRegistrator && entry->optionalServiceDef &&
            !isSameRegistration(*entry->optionalServiceDef, *update.element)) {
            // Told by a query before its successor came, and nobody has said that it went.
            KESA_TRACE(MAIN_CHANNEL, 2, "[updateRemoteTrackedService] another registration was known service='%s'",
                       path.c_str());
            triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, *entry->optionalServiceDef, entry->trackers,
                                 m_queryTrackers);
        }
        entry->isTrackingAnswered = true;
        entry->optionalServiceDef = *update.element;
        triggerRuntimeUpdate(ResourceUpdateType::eADDED, *update.element, entry->trackers, m_queryTrackers);
        break;
    case UpdateType::REMOVED:
        KESA_TRACE(MAIN_CHANNEL, 2, "[updateRemoteTrackedService] eREMOVED for service='%s' %ld", path.c_str(),
                   static_cast<long>(reinterpret_cast<std::intptr_t>(&update)));
        if (entry == nullptr) {
            // The placeholder is the text's own.
            KESA_TRACE_TEXT(MAIN_CHANNEL, 3,
                            std::string("[updateRemoteTrackedService] service='%s' runtimeEntry not present"));
        } else {
            removeRemoteTrackedService(*entry, update);
        }
        break;
    case UpdateType::MODIFIED: // a registry of ours removes and adds a record that has changed
        break;
    }
}

void KesaRuntimeImpl::removeRemoteTrackedService(RuntimeEntry& entry, const RegistryUpdate& update)
{
    const std::string path = update.element->path.toString();
    entry.isTrackingAnswered = false;
    if (!entry.optionalServiceDef) {
        KESA_TRACE(MAIN_CHANNEL, 3, "[updateRemoteTrackedService] Service '%s' already unregistered -> ignoring",
                   path.c_str());
        return;
    }
    if (entry.optionalRegistrator) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 3,
                        std::string("[updateRemoteTrackedService] service='%s' is already registed do not forward "
                                    "eREMOVED event"));
        return;
    }
    if (!entry.isStaticConfigured) {
        entry.optionalServiceDef.reset();
    }
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, *update.element, entry.trackers, m_queryTrackers);
    deleteRuntimeEntry(path);
}

void KesaRuntimeImpl::remoteTrackingLost(const std::string& path, std::uint32_t request)
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[trackServiceOnRegistry onCompleted] service='%s'", path.c_str());
    RuntimeEntry* const entry = entryOfRequest(path, &RuntimeEntry::remoteTrackingId, request, "remoteTrackingLost");
    if (entry != nullptr) {
        entry->isTrackingAnswered = false;
    }
    if (entry == nullptr || !entry->optionalServiceDef) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[trackServiceOnRegistry onCompleted] found no service entry for service='%s'",
                   path.c_str());
        return;
    }
    if (entry->optionalRegistrator) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[trackServiceOnRegistry onCompleted] registered here -> kept service='%s'",
                   path.c_str());
        return;
    }
    const ServiceDef lost = takeRecord(*entry);
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, lost, entry->trackers, m_queryTrackers);
}

} // namespace kesa::runtime::v02
