#ifndef KESA_RUNTIME_V02_TESTS_FAKEBACKEND_H
#define KESA_RUNTIME_V02_TESTS_FAKEBACKEND_H

#include <kesa/commadapter/IBackend.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kesa::runtime::v02::test {

/// What the backends of a test share: what is provided, who is connected, and the test's hand on both. Locators are
/// "fake://<process>/path". Listeners are called with the lock held, so none runs once `release` has returned.
class FakeNetwork {
public:
    // The test's hand
    std::set<std::string> refusedPaths;    ///< `provideOnPath` fails
    std::set<std::string> refusedLocators; ///< `connect` answers null
    std::string scheme = "fake";
    bool isAutomatic = false; ///< clients of provided locators are connected as soon as they start

    void connected(const std::string& locator);
    void disconnected(const std::string& locator);
    void failed(const std::string& locator, unsigned short code, const std::string& message);

    // What a test asks
    bool isProvided(const std::string& locator);
    IKesaApi* service(const std::string& locator);
    std::size_t openClients();
    std::vector<std::string> calls(); ///< to the backends, in order

    struct Client {
        IClientConnectionListener* listener;
        std::string locator;
        bool isConnected = false;
    };
    std::mutex mutex;
    std::map<std::string, IKesaApi*> provided;
    std::map<const IKesaApi*, Client> clients; ///< not yet released
    std::vector<std::string> log;
    std::atomic<int> livingClientObjects{0};
};

class FakeBackend final : public commadapter::IBackend {
public:
    FakeBackend(std::shared_ptr<FakeNetwork> network, std::string process);

    void start() override;
    void stop() override;
    bool canHandle(const url& locator) override;
    bool provideOnPath(const std::string& path, IKesaApi* service, url& locator) override;
    bool provideOnLocator(const url& locator, IKesaApi* service) override;
    void unprovide(const url& locator) override;
    commadapter::KesaClientApi* connect(const url& locator, IClientConnectionListener* listener) override;
    void release(IKesaApi* client, bool serviceRemoved) override;
    bool isLocal(const url& locator) override;

private:
    void note(const std::string& call) { m_network->log.push_back(call); }

    std::shared_ptr<FakeNetwork> m_network;
    std::string m_process;
};

/// A service object that counts its lives.
class FakeService final : public IKesaApi {
public:
    explicit FakeService(std::atomic<int>* living = nullptr);
    ~FakeService() override;
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override;
    void cancel(void* handle) override;

private:
    std::atomic<int>* m_living;
};

} // namespace kesa::runtime::v02::test

#endif
