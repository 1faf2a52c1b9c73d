#include "FakeBackend.h"

#include <utility>

namespace kesa::runtime::v02::test {

namespace {

class FakeClient final : public commadapter::KesaClientApi {
public:
    FakeClient(std::shared_ptr<FakeNetwork> network, std::string locator)
        : m_network(std::move(network)), m_locator(std::move(locator))
    {
        ++m_network->livingClientObjects;
    }
    ~FakeClient() override { --m_network->livingClientObjects; }

    void startConnect() override
    {
        if (m_network->isAutomatic && m_network->isProvided(m_locator)) {
            m_network->connected(m_locator);
        }
    }
    void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        handler->onError(Response::createErrorResponse(503));
        return UNDEFINED_REQUEST_HANDLE;
    }
    void cancel(void*) override {}

private:
    std::shared_ptr<FakeNetwork> m_network;
    std::string m_locator;
};

} // namespace

void FakeNetwork::connected(const std::string& locator)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto& [api, client] : clients) {
        if (client.locator == locator && !client.isConnected) {
            client.isConnected = true;
            client.listener->clientConnected();
        }
    }
}

void FakeNetwork::disconnected(const std::string& locator)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto& [api, client] : clients) {
        if (client.locator == locator && client.isConnected) {
            client.isConnected = false;
            client.listener->clientDisconnected();
        }
    }
}

void FakeNetwork::failed(const std::string& locator, unsigned short code, const std::string& message)
{
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto& [api, client] : clients) {
        if (client.locator == locator) {
            client.listener->clientError(code, message);
        }
    }
}

bool FakeNetwork::isProvided(const std::string& locator)
{
    return service(locator) != nullptr;
}

IKesaApi* FakeNetwork::service(const std::string& locator)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = provided.find(locator);
    return found == provided.end() ? nullptr : found->second;
}

std::size_t FakeNetwork::openClients()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return clients.size();
}

std::vector<std::string> FakeNetwork::calls()
{
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(log, {});
}

FakeBackend::FakeBackend(std::shared_ptr<FakeNetwork> network, std::string process)
    : m_network(std::move(network)), m_process(std::move(process))
{}

void FakeBackend::start()
{
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    note("start " + m_process);
}

void FakeBackend::stop()
{
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    note("stop " + m_process);
    m_network->clients.clear();
}

bool FakeBackend::canHandle(const url& locator)
{
    return locator.scheme() == m_network->scheme;
}

bool FakeBackend::provideOnPath(const std::string& path, IKesaApi* service, url& locator)
{
    if (m_network->refusedPaths.count(path) != 0) {
        return true;
    }
    const url chosen(m_network->scheme + "://" + m_process + path);
    if (provideOnLocator(chosen, service)) {
        return true;
    }
    locator = chosen;
    return false;
}

bool FakeBackend::provideOnLocator(const url& locator, IKesaApi* service)
{
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    note("provide " + locator.toString());
    return m_network->refusedPaths.count(locator.toString()) != 0 ||
           !m_network->provided.emplace(locator.toString(), service).second;
}

void FakeBackend::unprovide(const url& locator)
{
    {
        const std::lock_guard<std::mutex> lock(m_network->mutex);
        note("unprovide " + locator.toString());
        m_network->provided.erase(locator.toString());
    }
    m_network->disconnected(locator.toString());
}

commadapter::KesaClientApi* FakeBackend::connect(const url& locator, IClientConnectionListener* listener)
{
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    note("connect " + locator.toString());
    if (m_network->refusedLocators.count(locator.toString()) != 0) {
        return nullptr;
    }
    auto* const client = new FakeClient(m_network, locator.toString());
    m_network->clients.emplace(client, FakeNetwork::Client{listener, locator.toString()});
    return client;
}

void FakeBackend::release(IKesaApi* client, bool serviceRemoved)
{
    const std::lock_guard<std::mutex> lock(m_network->mutex);
    note("release " + m_network->clients.at(client).locator + (serviceRemoved ? " removed" : ""));
    m_network->clients.erase(client);
}

bool FakeBackend::isLocal(const url& locator)
{
    return canHandle(locator) && locator.authority() == m_process;
}

FakeService::FakeService(std::atomic<int>* living) : m_living(living)
{
    if (m_living != nullptr) {
        ++*m_living;
    }
}

FakeService::~FakeService()
{
    if (m_living != nullptr) {
        --*m_living;
    }
}

void* FakeService::request(const Request&, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    handler->onCompleted();
    return UNDEFINED_REQUEST_HANDLE;
}

void FakeService::cancel(void*) {}

} // namespace kesa::runtime::v02::test
