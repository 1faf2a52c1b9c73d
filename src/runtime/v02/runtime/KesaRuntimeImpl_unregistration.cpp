#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <comm/Clock.h>
#include <fmt/format.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/EventLog.h>

#include <algorithm>
#include <unistd.h>

namespace kesa::runtime::v02 {

namespace {

/// The locators of the record, then what was really provided and is not among them.
std::vector<url> locatorsToWithdraw(const std::vector<url>& recorded, const std::vector<url>& provided)
{
    std::vector<url> locators = recorded;
    for (const url& locator : provided) {
        if (std::find(recorded.begin(), recorded.end(), locator) == recorded.end()) {
            locators.push_back(locator);
        }
    }
    return locators;
}

} // namespace

/// A disposal acts on the path, so that of a refused registration ends the one that was in its way.
void KesaRuntimeImpl::warnOfOther(const std::string& path, const Handle& disposed) const
{
    onExecutor();
    const auto found = m_runtimeEntries.find(path);
    if (found != m_runtimeEntries.end() && found->second.optionalRegistrator &&
        !(found->second.registration == disposed)) {
        KESA_TRACE(MAIN_CHANNEL, 3,
                   "[registerService Disposable] the registration of '%s' that is disposed was refused, or has ended: "
                   "this ends another one of the path, which was good. Do not dispose after an error, or use "
                   "kesa::provide, which sees to that",
                   path.c_str());
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the path may be a part of what goes
void KesaRuntimeImpl::performUnregistration(std::string path)
{
    onExecutor();
    const void* const address = path.c_str();
    KESA_TRACE(MAIN_CHANNEL, 2, "[performUnregistration] with service='%p'", address);
    const auto found = m_runtimeEntries.find(path);
    if (found == m_runtimeEntries.end()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[performUnregistration] can not find service='%p'", address);
        return;
    }
    RuntimeEntry& entry = found->second;
    // Without a registrator there is nothing of this process to withdraw: the service may be somebody else's.
    if (!entry.optionalServiceDef || !entry.optionalRegistrator) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[performUnregistration] no ServiceDev for service='%s'", path.c_str());
        return;
    }
    if (entry.optionalServiceDef->type == ServiceDef::TypeEnum::registry) {
        isRegistryServiceRegistered = false;
    }
    if (m_remoteRegistryHandler) {
        if (!entry.isConfirmed) {
            noteDropped(path, entry);
        }
        KESA_TRACE(MAIN_CHANNEL, 2, "[performUnregistration] free remote registration of service ='%s'", path.c_str());
        if (entry.remoteRegistrationId) {
            m_remoteRegistryHandler->cancel(*entry.remoteRegistrationId);
        }
        entry.remoteRegistrationId.reset();
    }
    const ServiceDef serviceDef = takeRecord(entry);
    KESA_TRACE(MAIN_CHANNEL, 2, "[performUnregistration] unprovideURL of service ='%s'", path.c_str());
    unprovide(entry, serviceDef);
    {
        const auto registrator = std::move(*entry.optionalRegistrator);
        entry.optionalRegistrator.reset();
    }
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, serviceDef, entry.trackers, m_queryTrackers);
    deleteRuntimeEntry(path);
    KESA_TRACE(MAIN_CHANNEL, 2, "[performUnregistration] after deleteRuntimeEntry of service ='%s'", path.c_str());
    eventlog::registrationUnregister(m_eventSource, serviceDef);
    followRemotely(path);
}

/// No registry tells of it, not even that it was there.
void KesaRuntimeImpl::noteDropped(const std::string& path, const RuntimeEntry& entry)
{
    const comm::TimeNs now = comm::now();
    const comm::TimeNs lasted = now - entry.registered;
    if (lasted >= comm::SECOND) {
        return; // there may be no registry, and it was meant to end
    }
    m_reasons->noteDropped(path);
    if (const auto end = m_droppedTraces.pass(now)) {
        KESA_TRACE_TEXT(MAIN_CHANNEL, 3,
                        fmt::format("[registerService Disposable] the registration of '{}' has ended after {} ms, "
                                    "before a registry had answered it: keep what kesa::provide or registerService "
                                    "returns, it withdraws the service when it is destroyed{}",
                                    path, lasted / comm::MILLISECOND, *end));
    }
}

/// What the path's record is, which then is not there any more unless it is configured.
ServiceDef KesaRuntimeImpl::takeRecord(RuntimeEntry& entry)
{
    ServiceDef record = *entry.optionalServiceDef;
    if (!entry.isStaticConfigured) {
        entry.optionalServiceDef.reset();
    }
    return record;
}

void KesaRuntimeImpl::unprovide(RuntimeEntry& entry, const ServiceDef& record)
{
    m_backendList.unprovideURL(locatorsToWithdraw(record.locators, entry.providedLocators));
    entry.providedLocators.clear();
}

/// The remote registry does not list the service any more.
// NOLINTNEXTLINE(performance-unnecessary-value-param): the path may be a part of what goes
void KesaRuntimeImpl::findAndUnregister(std::string path, const char* caller)
{
    onExecutor();
    const char* const text = path.c_str();
    const void* const address = text;
    const auto found = m_runtimeEntries.find(path);
    if (found == m_runtimeEntries.end()) {
        KESA_TRACE(MAIN_CHANNEL, 3, "[findAndUnregister, %s] service-path='%s' does not point to service registration",
                   caller, text);
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 1, "[findAndUnregister, %s] service-path='%s' points to service registration", caller,
               text);
    RuntimeEntry& entry = found->second;
    if (entry.isStaticConfigured) {
        if (!entry.optionalServiceDef) {
            obr::GlobalErrorHandler::doAssert(false, "runtimeEntryIter->second.optionalServiceDef.has_value()",
                                              __FILE__, __LINE__, __func__,
                                              "entry is static configured but has no ServiceDef");
            return;
        }
        KESA_TRACE(MAIN_CHANNEL, 2,
                   "[findAndUnregister, %s] service-path='%s' entry is static configured do not erase it", caller,
                   text);
        triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, *entry.optionalServiceDef, entry.trackers, m_queryTrackers);
        return;
    }
    const bool isInUse = !entry.trackers.empty() || entry.optionalRegistrator;
    if (!entry.optionalServiceDef) {
        if (isInUse) {
            KESA_TRACE(MAIN_CHANNEL, 2, "[findAndUnregister, %s else] entry is in use service='%p'", caller, address);
        } else {
            KESA_TRACE(MAIN_CHANNEL, 2, "[findAndUnregister, %s else] delete entry with service='%p'", caller, address);
            m_runtimeEntries.erase(found);
        }
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 1, "[findAndUnregister, %s] service-path='%s' has a ServiceDef", caller, text);
    KESA_TRACE(MAIN_CHANNEL, 2, "[findAndUnregister, %s] unregistered service '%s' trackerSize=%zu", caller, text,
               entry.trackers.size());
    // A tracking that has answered tells its trackers itself; this may be about what was there before its
    // answer.
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, *entry.optionalServiceDef,
                         entry.isTrackingAnswered ? Trackers() : entry.trackers, m_queryTrackers);
    if (isInUse) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[findAndUnregister, %s]  entry is in use service='%s'", caller, text);
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[findAndUnregister, %s] delete entry with service='%s'", caller, text);
    m_runtimeEntries.erase(found);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the path may be a part of what goes
void KesaRuntimeImpl::deleteRuntimeEntry(std::string path)
{
    onExecutor();
    const void* const address = path.c_str();
    const auto found = m_runtimeEntries.find(path);
    if (found == m_runtimeEntries.end()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[deleteRuntimeEntry] no entry for service='%p'", address);
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[deleteRuntimeEntry] with service='%p'", address);
    if (found->second.isStaticConfigured) {
        return;
    }
    if (found->second.optionalServiceDef) {
        if (const auto end = m_keptLines.pass(::getpid(), comm::now())) {
            KESA_TRACE(MAIN_CHANNEL, 3, "[deleteRuntimeEntry] runtimeEntry for service='%s' has a serviceDef%s",
                       path.c_str(), end->c_str());
        }
        return;
    }
    if (!found->second.trackers.empty()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[deleteRuntimeEntry]  entry is in use service='%p'", address);
        return;
    }
    if (found->second.optionalRegistrator) {
        obr::GlobalErrorHandler::doAssert(false, "!optionalRegistrator", __FILE__, __LINE__, __func__,
                                          "a registered service has no ServiceDef");
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[deleteRuntimeEntry] delete entry with service='%p'", address);
    m_runtimeEntries.erase(found);
}

} // namespace kesa::runtime::v02
