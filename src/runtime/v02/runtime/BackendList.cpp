#include <runtime/v02/runtime/BackendList.h>

#include <kesa/commadapter/createBackend.h>
#include <kesa/errors.h>
#include <kesa/headers.h>
#include <obr/ErrorOutput.h>
#include <obr/ErrorStorage.h>
#include <obr/GlobalErrorHandler.h>
#include <runtime/v02/runtime/MyClientConnectionListener.h>
#include <runtime/v02/runtime/channels.h>

#include <utility>

namespace kesa::runtime::v02 {

BackendList::BackendList() = default;
BackendList::~BackendList() = default;

void BackendList::onExecutor() const
{
    if (m_activeObject && !m_activeObject->isCurrentThread()) {
        obr::GlobalErrorHandler::doAssert(false, "m_activeObject->isCurrentThread()", __FILE__, __LINE__, __func__,
                                          "the backend list belongs to the executor");
    }
}

void BackendList::startup(const std::string& processName, const std::vector<std::string>& backendNames,
                          const std::string& partition, std::shared_ptr<comm::ActiveObject> executor)
{
    onExecutor();
    KESA_TRACE(BACKENDS_CHANNEL, 1, "[startup] '%s'", processName.c_str());
    m_processName = processName;
    if (!m_backends.empty()) {
        obr::GlobalErrorHandler::doAssert(false, "m_backends.size() == 0", __FILE__, __LINE__, "startup", nullptr);
        return;
    }
    for (const std::string& name : backendNames) {
        if (name == "comm") {
            m_backends.push_back(commadapter::createBackend(m_processName, partition));
        } else {
            KESA_TRACE(BACKENDS_CHANNEL, 1, "[startup] backend not known='%s'", name.c_str());
        }
    }
    for (const auto& backend : m_backends) {
        backend->start();
    }
    m_activeObject = std::move(executor);
}

void BackendList::shutdown()
{
    KESA_TRACE(BACKENDS_CHANNEL, 1, "[shutdown] '%s'", m_processName.c_str());
    for (auto& backend : m_backends) {
        backend->stop();
        backend.reset();
    }
    m_backends.clear();
}

BackendList::Holds BackendList::holds() const
{
    onExecutor();
    Holds holds;
    for (const auto& backend : m_backends) {
        if (auto hold = backend->hold()) {
            holds.push_back(std::move(hold));
        }
    }
    return holds;
}

void BackendList::describeHolds(const Holds& holds)
{
    onExecutor();
    for (const auto& backend : m_backends) {
        backend->describeHolds(holds);
    }
}

bool BackendList::provideURL(const std::vector<url>& locators, const std::shared_ptr<IKesaApi>& service)
{
    onExecutor();
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[provideURL] '%d'", static_cast<int>(locators.size()));
    obr::ErrorStorage::ack();
    int count = 0;
    for (const url& locator : locators) {
        const int provided = provideOnBackends(locator, service);
        if (provided == 0) {
            KESA_TRACE(BACKENDS_CHANNEL, 3, "[provideURL] locator='%s' can not be provided on any registerd backend",
                       locator.toString().c_str());
        }
        count += provided;
    }
    if (count != 0) {
        const std::string& key = locators.front().toString();
        KESA_TRACE(BACKENDS_CHANNEL, 2, "[provideURL] insert in m_providedServices locator='%s'", key.c_str());
        m_providedServices.emplace(key, service);
    }
    KESA_TRACE(BACKENDS_CHANNEL, 1, "[provideURL] locator=%d", count);
    return endProviding(count == 0);
}

/// Answers `failed`. What failed at one backend is nothing when another has succeeded.
bool BackendList::endProviding(bool failed) const
{
    if (!failed) {
        obr::ErrorStorage::ack();
    } else if (!obr::ErrorStorage::isError()) {
        obr::ErrorOutput(__FILE__, __LINE__, true)(
            errors::Error, 7,
            m_backends.empty() ? "this process has no backend; its configuration names none under \"backends\""
                               : "no backend of this process can handle the locators that are configured for it");
    }
    return failed;
}

int BackendList::provideOnBackends(const url& locator, const std::shared_ptr<IKesaApi>& service)
{
    int provided = 0;
    for (std::size_t index = 0; index < m_backends.size(); ++index) {
        KESA_TRACE(BACKENDS_CHANNEL, 2, "[provideURL] %d", static_cast<int>(index));
        if (m_backends[index]->canHandle(locator) && !m_backends[index]->provideOnLocator(locator, service.get())) {
            ++provided;
        }
    }
    if (provided != 0) {
        m_callableServices.emplace(locator.toString(), service);
    }
    return provided;
}

bool BackendList::providePath(const std::string& path, const std::shared_ptr<IKesaApi>& service, ServiceDef& serviceDef)
{
    onExecutor();
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[providePath] '%s'", path.c_str());
    obr::ErrorStorage::ack();
    bool failed = true;
    for (const auto& backend : m_backends) {
        url locator;
        if (!backend->provideOnPath(path, service.get(), locator)) {
            failed = false;
            m_callableServices.emplace(locator.toString(), service);
            serviceDef.locators.push_back(std::move(locator));
        }
    }
    if (failed) {
        KESA_TRACE(BACKENDS_CHANNEL, 4, "[providePath] could not provide service='%s'", path.c_str());
    } else {
        m_providedServices.emplace(serviceDef.locators.front().toString(), service);
    }
    return endProviding(failed);
}

void BackendList::unprovideURL(const std::vector<url>& locators)
{
    onExecutor();
    const void* const address = &locators;
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[unprovideURL] locator size='%d' addr='%p'", static_cast<int>(locators.size()),
               address);
    for (const auto& backend : m_backends) {
        for (const url& locator : locators) {
            KESA_TRACE(BACKENDS_CHANNEL, 2, "[unprovideURL] '%s'", locator.toString().c_str());
            backend->unprovide(locator);
        }
    }
    bool erased = false;
    for (const url& locator : locators) {
        m_callableServices.erase(locator.toString());
        if (m_providedServices.erase(locator.toString()) != 0) {
            erased = true;
            KESA_TRACE(BACKENDS_CHANNEL, 1, "[unprovideURL] erase locator='%s' out of no m_providedServices",
                       locator.toString().c_str());
        }
    }
    if (!erased) {
        KESA_TRACE(BACKENDS_CHANNEL, 4, "[unprovideURL] no locator match with key in m_providedServices map addr='%p'",
                   address);
    }
}

bool BackendList::isLocalService(const std::vector<url>& locators) const
{
    onExecutor();
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[isLocalService]");
    for (const auto& backend : m_backends) {
        for (const url& locator : locators) {
            if (backend->isLocal(locator)) {
                return true;
            }
        }
    }
    return false;
}

void BackendList::stayFindable() const
{
    onExecutor();
    for (const auto& backend : m_backends) {
        backend->stayFindable();
    }
}

bool BackendList::isSupportedLocator(const url& locator) const
{
    onExecutor();
    bool supported = false;
    for (const auto& backend : m_backends) {
        supported = backend->canHandle(locator) || supported; // every backend is asked
    }
    return supported;
}

optional<url> BackendList::getBestLocator(const std::vector<url>& locators) const
{
    for (const url& locator : locators) {
        if (isSupportedLocator(locator)) {
            return locator;
        }
    }
    return nullopt;
}

bool BackendList::openProxy(const url& locator, std::unique_ptr<ProxyHandler>&& handler)
{
    onExecutor();
    const std::string& key = locator.toString();
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[BackendList.openProxy] '%s'", key.c_str());
    const auto open = m_openProxies.find(key);
    if (open != m_openProxies.end()) {
        KESA_TRACE(BACKENDS_CHANNEL, 1, "[BackendList.openProxy] service='%s' there are already active openProxys",
                   key.c_str());
        open->second->addResponseHandler(std::move(handler));
        return false;
    }
    KESA_TRACE(BACKENDS_CHANNEL, 1, "[BackendList.openProxy] service='%s' no active openProxys calls", key.c_str());
    for (const auto& backend : m_backends) {
        if (!backend->canHandle(locator)) {
            continue;
        }
        auto listener = std::make_shared<MyClientConnectionListener>(locator, backend.get(), m_activeObject);
        commadapter::KesaClientApi* const client = backend->connect(locator, listener.get());
        if (client != nullptr) {
            listener->setApi(std::shared_ptr<IKesaApi>(client));
            listener->addResponseHandler(std::move(handler));
            m_visibleProxies->add(locator, listener->api(), *client);
            client->startConnect();
            m_openProxies.emplace(key, std::move(listener));
            return false;
        }
    }
    const std::unique_ptr<ProxyHandler> refused = std::move(handler);
    refused->onError(noLocator({locator}));
    return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 7,
                                                      "no locators found or defined for service '" + key + "'");
}

void BackendList::freeProxy(const url& locator, const void* handle, bool serviceRemoved)
{
    onExecutor();
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[BackendList::freeProxy]");
    const auto open = m_openProxies.find(locator.toString());
    if (open == m_openProxies.end()) {
        KESA_TRACE(BACKENDS_CHANNEL, 4, "[BackendList::freeProxy] can not find a listener");
        return;
    }
    if (open->second->handlerCount() > 1) {
        KESA_TRACE(BACKENDS_CHANNEL, 2,
                   "[BackendList::freeProxy] there are still active openProxy call do not free proxy.");
        open->second->eraseResponseHandler(handle);
        return;
    }
    KESA_TRACE(BACKENDS_CHANNEL, 2, "[BackendList::freeProxy] last active openProxy call free proxy.");
    // The listener leaves the table before the handler in it dies, and outlives the backend's last call to it.
    const std::shared_ptr<MyClientConnectionListener> listener = std::move(open->second);
    m_openProxies.erase(open);
    m_visibleProxies->remove(locator);
    const std::shared_ptr<IKesaApi> api = listener->api();
    listener->backend()->release(api.get(), serviceRemoved);
}

Response BackendList::noLocator(const std::vector<url>& locators)
{
    std::string names;
    for (const url& locator : locators) {
        names.append(names.empty() ? "" : ", ").append(locator.toString());
    }
    Response error = Response::createErrorResponse(404);
    headers::appendReason(error, names.empty() ? "the service has no locators"
                                               : "no backend of this process reaches any of its locators: " + names);
    return error;
}

bool BackendList::hasHandler(const url& locator, const void* handle) const
{
    onExecutor();
    const auto open = m_openProxies.find(locator.toString());
    return open != m_openProxies.end() && open->second->hasResponseHandler(handle);
}

} // namespace kesa::runtime::v02
