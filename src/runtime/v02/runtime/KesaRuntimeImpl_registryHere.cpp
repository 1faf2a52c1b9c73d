#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <obr/ErrorStorage.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/EventLog.h>

namespace kesa::runtime::v02 {

/// The first registration of a process that hosts the registry has to be the registry itself, under the locators that
/// the configuration gives for it. A process that cannot do that is of no use: it ends.
void KesaRuntimeImpl::registerRegistryService(Registration registration)
{
    onExecutor();
    const std::string& path = registration.path;
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerRegistryService] service='%s'", path.c_str());
    if (registration.type != ServiceDef::TypeEnum::registry) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[registerRegistryService] kesa runtime in registry, registry service must registered first and not "
                   "service='%s'",
                   path.c_str());
        KESA_TRACE(
            MAIN_CHANNEL, 4,
            "[registerRegistryService] this process is the registry's host, since the configuration says that the "
            "registry is at %s: make a kesa::registry::RegistryHost before anything else is registered, or give "
            "the process another name",
            m_registryLocators.empty() ? "" : m_registryLocators.front().toString().c_str());
        m_executorWatch.tell("registerService", path, [&registration] {
            registration.handler->onError(
                Response::createErrorResponse(409, "kesa runtime in registry, registry service must registered first"));
        });
        obr::GlobalErrorHandler::doAssert(
            false, "false", __FILE__, __LINE__, __func__,
            "[registerRegistryService] kesa runtime in registry, registry service must be registered first");
        return;
    }
    const auto present = m_runtimeEntries.find(path);
    if (present != m_runtimeEntries.end() && present->second.optionalRegistrator) {
        KESA_TRACE(MAIN_CHANNEL, 3, "[registerRegistryService] service='%s' is registered as something else",
                   path.c_str());
        refuse(path, std::move(registration.handler), "this process has registered it as something else");
        return;
    }
    const ServiceDef serviceDef = registryServiceDef(registration);
    eventlog::registrationRegister(m_eventSource, serviceDef);
    // The entry may be there: trackers of a registry that was withdrawn have kept it.
    RuntimeEntry& entry = m_runtimeEntries[path];
    setRegistrator(entry, registration);
    entry.isProvidedByThisProcess = true;
    entry.optionalServiceDef = serviceDef;
    if (m_backendList.provideURL(m_registryLocators, registration.api)) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[registerRegistryService] dynamic service='%s' can no be registered",
                   path.c_str());
        eventlog::registrationError(m_eventSource, serviceDef, "dynamic service can no be registered");
        refuseRegistrator(path, entry, obr::ErrorStorage::takeReason());
        entry.optionalServiceDef.reset();
        deleteRuntimeEntry(path);
        obr::GlobalErrorHandler::doAssert(
            false, "false", __FILE__, __LINE__, __func__,
            "[registerRegistryService] kesa runtime in registry, registry service can not be registed");
        return;
    }
    entry.providedLocators = m_registryLocators;
    isRegistryServiceRegistered = true;
    m_executorWatch.tell("registerService", path, [&] { (*entry.optionalRegistrator)->onNext(serviceDef); });
    triggerRuntimeUpdate(ResourceUpdateType::eADDED, serviceDef, entry.trackers, m_queryTrackers); // left from before
    tellRegistered(serviceDef);
    KESA_TRACE(MAIN_CHANNEL, 2, "[registerRegistryService] service='%s' DONE", path.c_str());
}

ServiceDef KesaRuntimeImpl::registryServiceDef(const Registration& registration) const
{
    ServiceDef serviceDef(Path(registration.path), ServiceDef::TypeEnum::registry, registration.versions,
                          m_registryLocators);
    serviceDef.metainfo = registration.metainfo;
    return serviceDef;
}

} // namespace kesa::runtime::v02
