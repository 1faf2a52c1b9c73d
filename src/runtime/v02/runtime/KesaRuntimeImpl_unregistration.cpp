#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <runtime/v02/runtime/EventLog.h>

#include <algorithm>

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
    const ServiceDef serviceDef = *entry.optionalServiceDef;
    if (!entry.isStaticConfigured) {
        entry.optionalServiceDef.reset();
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[performUnregistration] unprovideURL of service ='%s'", path.c_str());
    m_backendList.unprovideURL(locatorsToWithdraw(serviceDef.locators, entry.providedLocators));
    entry.providedLocators.clear();
    {
        const auto registrator = std::move(*entry.optionalRegistrator);
        entry.optionalRegistrator.reset();
    }
    triggerRuntimeUpdate(ResourceUpdateType::eREMOVED, serviceDef, entry.trackers, m_queryTrackers);
    deleteRuntimeEntry(path);
    KESA_TRACE(MAIN_CHANNEL, 2, "[performUnregistration] after deleteRuntimeEntry of service ='%s'", path.c_str());
    eventlog::registrationUnregister(m_eventSource, serviceDef);
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
        KESA_TRACE(MAIN_CHANNEL, 3, "[deleteRuntimeEntry] runtimeEntry for service='%s' has a serviceDef",
                   path.c_str());
        return;
    }
    if (!found->second.trackers.empty()) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[deleteRuntimeEntry]  entry is in use service='%p'", address);
        return;
    }
    KESA_TRACE(MAIN_CHANNEL, 2, "[deleteRuntimeEntry] delete entry with service='%p'", address);
    m_runtimeEntries.erase(found);
}

} // namespace kesa::runtime::v02
