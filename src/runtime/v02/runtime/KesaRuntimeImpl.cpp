#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <comm/Condition.h>
#include <fmt/format.h>
#include <kesa/Request.h>
#include <kesa/processName.h>
#include <kesa/runtime/mimetype.h>
#include <kesa/servicecomp.h>
#include <kesa/serviceregistry/ServiceRegistryPexClient.h>
#include <obr/ErrorStorage.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/config/traceFaults.h>
#include <runtime/v02/runtime/EventLog.h>
#include <util/config/Complaint.h>
#include <util/config/FrameworkProvider.h>

#include <algorithm>

namespace kesa::runtime::v02 {

KesaRuntimeImpl::KesaRuntimeImpl(KesaConfig&& config, std::unique_ptr<ProcessNote> note)
    : m_proc_name(KesaConfigAccessor(config).getOwnProcessName()), m_config(std::move(config)),
      m_executor(std::make_shared<comm::ActiveObject>("KesaRuntimeImpl.m_executor")),
      m_updater(std::make_shared<comm::ActiveObject>("KesaRuntimeImpl.m_updater")),
      m_executorWatch(m_executor, "executor"), m_updaterWatch(m_updater, "updater"),
      m_reasons(std::make_shared<Reasons>(m_config, m_backendList.openProxies(),
                                          Reasons::Holds{m_executorWatch.hold(), m_updaterWatch.hold()},
                                          std::move(note))),
      m_eventSource(m_proc_name)
{
    KESA_TRACE(MAIN_CHANNEL, 1, "[ctor]");
    servicecomp::overrideMimeTypeFunc([](const Request& request) { return getMimeType(request.getMimeTypeHeader()); });
}

KesaRuntimeImpl::~KesaRuntimeImpl()
{
    KESA_TRACE(MAIN_CHANNEL, 1, "[dtor]");
    if (!m_executor) {
        eventlog::runtimeError(m_eventSource, "Error during shutdown: executor is null");
    }
    if (!m_updater) {
        eventlog::runtimeError(m_eventSource, "Error during shutdown: updater is null");
    }
    obr::GlobalErrorHandler::doAssert(m_executor != nullptr, "m_executor", __FILE__, __LINE__, __func__, nullptr);
    obr::GlobalErrorHandler::doAssert(m_updater != nullptr, "m_updater", __FILE__, __LINE__, __func__, nullptr);
    comm::runAndWait(*m_executor, [this] { releaseRegistry(); });
    // Everything ends before any pointer goes: what still drains on one loop may post to the other.
    m_executor->stop();
    m_updater->stop();
    m_backendList.shutdown();
    m_reasons->endNote();
    eventlog::runtimeStop(m_eventSource);
    KESA_TRACE(MAIN_CHANNEL, 2, "[dtor] m_runtimeEntries %zu", m_runtimeEntries.size());
}

bool KesaRuntimeImpl::start()
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] '%s'", m_proc_name.c_str());
    if (m_isRunning) {
        KESA_TRACE(MAIN_CHANNEL, 2, "KesaRuntimeImpl::start called twice");
        return false;
    }
    m_isRunning = true;
    if (const std::string complaint = complaintAboutProcessName(m_proc_name); !complaint.empty()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "[KesaRuntimeImpl::start] %s", complaint.c_str());
        return true;
    }
    std::string partition;
    const bool failure = util::config::FrameworkProvider::getNodenameForProcess(m_proc_name, partition);
    KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] m_proc_name=%s, ownPartition=%s", m_proc_name.c_str(),
               partition.c_str());
    const KesaConfigAccessor config(m_config);
    config.getNodeDomainMapping(partition);
    KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] after node domain mapping ownPartition=%s",
               partition.c_str());
    if (failure) {
        traceFault("the node of '" + m_proc_name + "'", obr::ErrorStorage::reason());
        obr::GlobalErrorHandler::doAssert(false, "!failure", __FILE__, __LINE__, "start",
                                          "[KesaRuntimeImpl::start] Unable to determine own partition");
        return true;
    }
    if (config.getBackends().empty()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "KesaRuntimeImpl::start no backends in config file");
        eventlog::runtimeError(m_eventSource, "Error during start: no backends in config file");
        return true;
    }
    StartResult result = StartResult::eNO_LOCATOR;
    comm::runAndWait(*m_executor, [this, &partition, &result] { result = startOnExecutor(partition); });
    if (result == StartResult::eNO_PARTITION) {
        traceFault(m_config.source(),
                   "\"use_registry\" asks for a registry, and \"service_registry_locators\" has none for the partition "
                   "of this process, '" +
                       util::config::excerpt(partition) + "'; write {\"*\": [\"ipc://kesa-registryd/registry\"]}");
        eventlog::runtimeError(m_eventSource, "Error during start: found no partition for kesa registry");
        obr::GlobalErrorHandler::doAssert(false, "optRegistryLocators.has_value()", __FILE__, __LINE__, "start",
                                          "[KesaRuntimeImpl::start] found no partition for kesa registry");
        return true;
    }
    if (result == StartResult::eNO_LOCATOR) {
        traceFault(m_config.source(), whyNoLocator());
        eventlog::runtimeError(m_eventSource, "Error during start: Found no resolvable registry locator in config");
        obr::GlobalErrorHandler::doAssert(false, "resolved", __FILE__, __LINE__, "start",
                                          "[KesaRuntimeImpl::start] Found no resolvable registry locator in config");
        return true;
    }
    eventlog::runtimeStart(m_eventSource);
    return false;
}

std::string KesaRuntimeImpl::whyNoLocator() const
{
    const std::vector<std::string>& backends = m_config.m_backends;
    if (std::find(backends.begin(), backends.end(), "comm") == backends.end()) {
        return "\"use_registry\" asks for a registry, and none of \"backends\" reaches one; write [\"comm\"]";
    }
    std::string all;
    for (const url& locator : m_registryLocators) {
        all.append(all.empty() ? "" : ", ").append(locator.toString());
    }
    return "\"service_registry_locators\": none of " + util::config::excerpt(all) +
           " can be reached: it takes the scheme \"ipc\", a path, and no realm but that of the run directory; write "
           "\"ipc://kesa-registryd/registry\"";
}

KesaRuntimeImpl::StartResult KesaRuntimeImpl::startOnExecutor(const std::string& partition)
{
    onExecutor();
    const KesaConfigAccessor config(m_config);
    m_backendList.startup(m_proc_name, config.getBackends(), partition, m_executor);
    m_reasons->setBackendHolds(m_backendList.holds());
    m_backendList.describeHolds({m_executorWatch.hold(), m_updaterWatch.hold()});
    if (config.useRemoteRegistry()) {
        return findRegistry(partition);
    }
    initializeStaticServices();
    return StartResult::eSTARTED;
}

/// In this process, or at the first locator that a backend can handle.
KesaRuntimeImpl::StartResult KesaRuntimeImpl::findRegistry(const std::string& partition)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "KesaRuntimeImpl::start use remote registry");
    const auto optRegistryLocators = KesaConfigAccessor(m_config).getRegistryLocatorsByPartition(partition, false);
    if (!optRegistryLocators) {
        return StartResult::eNO_PARTITION;
    }
    m_registryLocators = *optRegistryLocators;
    isRuntimeInRegistry = m_backendList.isLocalService(m_registryLocators);
    KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] is runtime in kesa registry=%d",
               static_cast<int>(isRuntimeInRegistry));
    if (isRuntimeInRegistry) {
        KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] runtime in kesa registry");
        m_reasons->setRegistryHere();
        m_backendList.stayFindable();
        return StartResult::eSTARTED;
    }
    for (const url& locator : m_registryLocators) {
        KESA_TRACE(MAIN_CHANNEL, 2, "Registry locators %s", locator.toString().c_str());
        if (m_backendList.isSupportedLocator(locator)) {
            KESA_TRACE(MAIN_CHANNEL, 2, "Registry locators='%s' is the best locator", locator.toString().c_str());
            m_registryUrl = locator;
            m_reasons->setRegistryAt(locator);
            m_remoteRegistryHandler = createRemoteRegistryTracker(m_registryUrl);
            return StartResult::eSTARTED;
        }
    }
    KESA_TRACE(MAIN_CHANNEL, 4, "[KesaRuntimeImpl::start] Found no resolvable registry locator in config");
    return StartResult::eNO_LOCATOR;
}

std::shared_ptr<RemoteRegistryHandler> KesaRuntimeImpl::createRemoteRegistryTracker(const url& locator)
{
    KESA_TRACE(MAIN_CHANNEL, 2, "[createRemoteRegistryTracker] seting up remote registry tracker");
    using RegistryState = std::shared_ptr<serviceregistry::ServiceRegistryPex>;
    return std::make_shared<RemoteRegistryHandler>(
        [this, locator = locator](std::unique_ptr<RemoteRegistryHandler::ConnectionHandler>&& handler) {
            auto wrapper = std::make_unique<responsehandlers::MappingResponseHandler<ProxyState, RegistryState>>(
                std::move(handler), [reasons = m_reasons](const ProxyState& state) {
                    reasons->setRegistryConnected(state.has_value());
                    if (!state) {
                        return optional<RegistryState>(std::in_place, nullptr); // a value: there is none now
                    }
                    ServiceDef registry;
                    registry.serializationFormats = std::vector<std::string>{"application/json"};
                    return optional<RegistryState>(std::make_shared<serviceregistry::ServiceRegistryPexClient>(
                        ResolvedService(std::move(registry), *state)));
                });
            m_registryProxyHandle = static_cast<const ProxyHandler*>(wrapper.get());
            const bool failed = m_backendList.openProxy(locator, std::move(wrapper));
            if (failed) {
                m_registryProxyHandle = nullptr; // the error has been told
            }
        });
}

/// The proxy goes before the object that its handler calls.
void KesaRuntimeImpl::releaseRegistry()
{
    onExecutor();
    if (!KesaConfigAccessor(m_config).useRemoteRegistry()) {
        return;
    }
    m_backendList.freeProxy(m_registryUrl, m_registryProxyHandle, false);
    if (m_backendList.hasHandler(m_registryUrl, m_registryProxyHandle)) {
        obr::GlobalErrorHandler::doAssert(false, "!hasHandler", __FILE__, __LINE__, __func__,
                                          "the registry's proxy still has its handler");
    }
    m_remoteRegistryHandler.reset();
}

void KesaRuntimeImpl::initializeStaticServices()
{
    onExecutor();
    KESA_TRACE(MAIN_CHANNEL, 2, "[initializeStaticServices]");
    for (const ServiceDef& service : KesaConfigAccessor(m_config).getServices()) {
        RuntimeEntry entry;
        entry.optionalServiceDef = service;
        entry.isStaticConfigured = true;
        entry.isProvidedByThisProcess = m_backendList.isLocalService(service.locators);
        m_runtimeEntries.emplace(service.path.toString(), std::move(entry)); // the first of equal paths stays
    }
}

KesaConfigAccessor KesaRuntimeImpl::getConfigAccessor() const
{
    return KesaConfigAccessor(m_config);
}

bool KesaRuntimeImpl::isRuntimeThread() const noexcept
{
    return m_executor->isCurrentThread() || m_updater->isCurrentThread();
}

bool KesaRuntimeImpl::refuseNull(const char* operation, std::string_view subject, const void* handler) const
{
    if (handler != nullptr) {
        return false;
    }
    KESA_TRACE_TEXT(MAIN_CHANNEL, 3,
                    fmt::format("[{}] the handler for '{}' is null, so nothing is done: give it what kesa::handler "
                                "makes",
                                operation, subject));
    return true;
}

void KesaRuntimeImpl::onExecutor() const
{
    if (!m_executor->isCurrentThread()) {
        obr::GlobalErrorHandler::doAssert(false, "m_executor->isCurrentThread()", __FILE__, __LINE__, __func__,
                                          "the tables belong to the executor");
    }
}

void KesaRuntimeImpl::onUpdater() const
{
    if (!m_updater->isCurrentThread()) {
        obr::GlobalErrorHandler::doAssert(false, "m_updater->isCurrentThread()", __FILE__, __LINE__, __func__,
                                          "updates are delivered on the updater");
    }
}

} // namespace kesa::runtime::v02
