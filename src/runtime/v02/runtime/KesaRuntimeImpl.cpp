#include <runtime/v02/runtime/KesaRuntimeImpl.h>

#include <comm/Condition.h>
#include <kesa/Request.h>
#include <kesa/runtime/mimetype.h>
#include <kesa/servicecomp.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/config/unsupportedRegistryKey.h>
#include <runtime/v02/runtime/EventLog.h>
#include <util/config/FrameworkProvider.h>

namespace kesa::runtime::v02 {

KesaRuntimeImpl::KesaRuntimeImpl(const std::string& processName) : KesaRuntimeImpl(KesaConfig(processName)) {}

KesaRuntimeImpl::KesaRuntimeImpl(const KesaConfig& config)
    : m_proc_name(KesaConfigAccessor(config).getOwnProcessName()), m_config(config),
      m_executor(std::make_shared<comm::ActiveObject>("KesaRuntimeImpl.m_executor")),
      m_updater(std::make_shared<comm::ActiveObject>("KesaRuntimeImpl.m_updater")), m_eventSource(m_proc_name)
{
    KESA_TRACE(MAIN_CHANNEL, 1, "[ctor]");
    servicecomp::overrideMimeTypeFunc([](const Request& request) { return getMimeType(request.getMimeTypeHeader()); });
}

KesaRuntimeImpl::~KesaRuntimeImpl()
{
    KESA_TRACE(MAIN_CHANNEL, 1, "[dtor]");
    // Everything ends before any pointer goes: what still drains on one loop may post to the other.
    m_executor->stop();
    m_updater->stop();
    m_backendList.shutdown();
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
    std::string partition;
    const bool failure = util::config::FrameworkProvider::getNodenameForProcess(m_proc_name, partition);
    KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] m_proc_name=%s, ownPartition=%s", m_proc_name.c_str(),
               partition.c_str());
    const KesaConfigAccessor config(m_config);
    config.getNodeDomainMapping(partition);
    KESA_TRACE(MAIN_CHANNEL, 2, "[KesaRuntimeImpl::start] after node domain mapping ownPartition=%s",
               partition.c_str());
    if (failure) {
        obr::GlobalErrorHandler::doAssert(false, "!failure", __FILE__, __LINE__, "start",
                                          "[KesaRuntimeImpl::start] Unable to determine own partition");
        return true;
    }
    if (config.getBackends().empty()) {
        KESA_TRACE(MAIN_CHANNEL, 4, "KesaRuntimeImpl::start no backends in config file");
        eventlog::runtimeError(m_eventSource, "Error during start: no backends in config file");
        return true;
    }
    StartResult result = StartResult::eNO_REGISTRY;
    comm::runAndWait(*m_executor, [this, &partition, &result] { result = startOnExecutor(partition); });
    if (result == StartResult::eNO_REGISTRY) {
        eventlog::runtimeError(m_eventSource, "Error during start: Found no resolvable registry locator in config");
        obr::GlobalErrorHandler::doAssert(false, "resolved", __FILE__, __LINE__, "start",
                                          "[KesaRuntimeImpl::start] Found no resolvable registry locator in config");
        return true;
    }
    eventlog::runtimeStart(m_eventSource);
    return false;
}

KesaRuntimeImpl::StartResult KesaRuntimeImpl::startOnExecutor(const std::string& partition)
{
    onExecutor();
    const KesaConfigAccessor config(m_config);
    m_backendList.startup(m_proc_name, config.getBackends(), partition, m_executor);
    if (const char* const key = unsupportedRegistryKey(config)) {
        KESA_TRACE(MAIN_CHANNEL, 4,
                   "[KesaRuntimeImpl::start] \"%s\" asks for a registry, there is none yet: set it to false, and "
                   "\"use_local_registry\" to true",
                   key);
        KESA_TRACE(MAIN_CHANNEL, 4, "[KesaRuntimeImpl::start] Found no resolvable registry locator in config");
        return StartResult::eNO_REGISTRY;
    }
    initializeStaticServices();
    return StartResult::eSTARTED;
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

bool KesaRuntimeImpl::refuseNull(const char* operation, const void* handler) const
{
    if (handler != nullptr) {
        return false;
    }
    KESA_TRACE(MAIN_CHANNEL, 3, "[%s] the handler is null, nothing is done", operation);
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
