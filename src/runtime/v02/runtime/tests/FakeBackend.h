#ifndef KESA_RUNTIME_V02_TESTS_FAKEBACKEND_H
#define KESA_RUNTIME_V02_TESTS_FAKEBACKEND_H

#include <kesa/commadapter/IBackend.h>
#include <kesa/errors.h>
#include <obr/ErrorOutput.h>

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kesa::runtime::v02::test {

/// What the backends of a test share: what is provided, who is connected, and the test's hand on both. Locators are
/// "fake://<process>/path".
class FakeNetwork {
public:
    std::string handledScheme = "fake";
    std::set<std::string> refusedPaths;    ///< `provideOnPath` fails
    std::set<std::string> refusedLocators; ///< `connect` answers null
    std::function<void()> onRelease;       ///< the open requests of the client object end
    std::string obstacle;                  ///< of every client object
    bool isAutomatic = false;              ///< clients of provided locators are connected as soon as they start

    void connected(const std::string& locator)
    {
        forEachOf(locator, [](Client& client) {
            if (!std::exchange(client.isConnected, true)) {
                client.listener->clientConnected();
            }
        });
    }
    void disconnected(const std::string& locator)
    {
        forEachOf(locator, [](Client& client) {
            if (std::exchange(client.isConnected, false)) {
                client.listener->clientDisconnected();
            }
        });
    }
    void failed(const std::string& locator, unsigned short code, const std::string& message)
    {
        forEachOf(locator, [&](Client& client) { client.listener->clientError(code, message); });
    }

    IKesaApi* service(const std::string& locator)
    {
        const auto found = provided.find(locator);
        return found == provided.end() ? nullptr : found->second;
    }
    bool isProvided(const std::string& locator) { return provided.count(locator) != 0; }
    std::size_t openClients() { return clients.size(); }
    /// The calls to the backends so far, in order; forgets them.
    std::vector<std::string> calls() { return std::exchange(log, {}); }

    struct Client {
        IClientConnectionListener* listener;
        std::string locator;
        bool isConnected = false;
    };
    std::map<std::string, IKesaApi*> provided;
    std::map<const IKesaApi*, Client> clients; ///< not yet released
    std::vector<std::string> log;
    int livingClientObjects = 0;

private:
    void forEachOf(const std::string& locator, const std::function<void(Client&)>& work)
    {
        for (auto& [api, client] : clients) {
            if (client.locator == locator) {
                work(client);
            }
        }
    }
};

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
    std::string obstacle() const override { return m_network->obstacle; }
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        IKesaApi* const service = m_network->service(m_locator);
        return service == nullptr ? UNDEFINED_REQUEST_HANDLE : service->request(request, std::move(handler));
    }
    void cancel(void* handle) override
    {
        if (IKesaApi* const service = m_network->service(m_locator)) {
            service->cancel(handle);
        }
    }

private:
    std::shared_ptr<FakeNetwork> m_network;
    std::string m_locator;
};

class FakeBackend final : public commadapter::IBackend {
public:
    FakeBackend(std::shared_ptr<FakeNetwork> network, std::string process)
        : m_network(std::move(network)), m_process(std::move(process))
    {}

    void start() override { note("start " + m_process); }
    void stop() override
    {
        note("stop " + m_process);
        m_network->clients.clear();
    }
    bool canHandle(const url& locator) override { return locator.scheme() == m_network->handledScheme; }
    bool provideOnPath(const std::string& path, IKesaApi* service, url& locator) override
    {
        const url chosen("fake://" + m_process + path);
        if (m_network->refusedPaths.count(path) != 0) {
            return refuse();
        }
        if (provideOnLocator(chosen, service)) {
            return true;
        }
        locator = chosen;
        return false;
    }
    bool provideOnLocator(const url& locator, IKesaApi* service) override
    {
        note("provide " + locator.toString());
        const bool isRefused = m_network->refusedPaths.count(locator.toString()) != 0 ||
                               !m_network->provided.emplace(locator.toString(), service).second;
        return isRefused && refuse();
    }
    static bool refuse() { return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 7, "the fake refuses it"); }
    void unprovide(const url& locator) override
    {
        note("unprovide " + locator.toString());
        m_network->provided.erase(locator.toString());
        m_network->disconnected(locator.toString());
    }
    commadapter::KesaClientApi* connect(const url& locator, IClientConnectionListener* listener) override
    {
        note("connect " + locator.toString());
        if (m_network->refusedLocators.count(locator.toString()) != 0) {
            return nullptr;
        }
        auto* const client = new FakeClient(m_network, locator.toString());
        m_network->clients.emplace(client, FakeNetwork::Client{listener, locator.toString()});
        return client;
    }
    void release(IKesaApi* client, bool serviceRemoved) override
    {
        const auto released = m_network->clients.extract(client);
        m_network->log.push_back("release " + released.mapped().locator + (serviceRemoved ? " removed" : ""));
        if (m_network->onRelease) {
            m_network->onRelease();
        }
    }
    bool isLocal(const url& locator) override { return canHandle(locator) && locator.authority() == m_process; }

private:
    void note(const std::string& call) { m_network->log.push_back(call); }

    std::shared_ptr<FakeNetwork> m_network;
    std::string m_process;
};

} // namespace kesa::runtime::v02::test

#endif
