// The backend on real threads over real sockets: what `cancel`, `release`, `unprovide` and `stop` promise while other
// threads are in the middle of it.

#include "StreamCheckers.h"
#include "backend/CommBackend.h"
#include "backend_support.h"
#include "transport/IpcTransport.h"

#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <kesa/FuncCallEvent.h>

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

namespace kesa::commadapter::test {
namespace {

using testing::IsEmpty;

class BackendThreads : public testing::Test {
protected:
    BackendThreads()
    {
        std::string directory = (std::filesystem::temp_directory_path() / "kesa-backend-XXXXXX").string();
        EXPECT_NE(mkdtemp(directory.data()), nullptr);
        m_runDir = directory;
        ::tracing::setSink(std::make_shared<::tracing::CapturingSink>("KESA_COMM"));
    }
    ~BackendThreads() override
    {
        EXPECT_THAT(violations.take(), IsEmpty());
        ::tracing::setSink(nullptr);
        std::filesystem::remove_all(m_runDir);
    }
    std::unique_ptr<IBackend> makeBackend(const std::string& process)
    {
        auto backend = makeCommBackend(process, CommSettings(), [this](const std::shared_ptr<comm::Reactor>& loop) {
            std::vector<std::unique_ptr<transport::ITransport>> transports;
            transports.push_back(
                transport::makeIpcTransport(transport::IpcSettings{m_runDir.string(), 0600, {}}, loop));
            return transports;
        });
        backend->start();
        return backend;
    }
    void notify()
    {
        const std::lock_guard lock(m_lock);
        m_changed.notifyAll();
    }
    template <class Holds>
    bool await(const Holds& holds, comm::TimeNs limit = 30 * comm::SECOND)
    {
        std::unique_lock lock(m_lock);
        return comm::waitFor(m_changed, lock, holds, comm::now() + limit);
    }
    void watch(Client& client)
    {
        client.checker.onConnected = [this] { notify(); };
        client.checker.onDisconnected = [this] { notify(); };
    }
    void connect(IBackend& server, CheckedService& service, Client& client)
    {
        watch(client);
        client.start();
        ASSERT_FALSE(server.provideOnLocator(url("ipc://server/service"), &service));
        ASSERT_TRUE(await([&] { return client.checker.isConnected(); }));
    }
    /// Issues a request and waits for its end.
    std::shared_ptr<Outcome> call(KesaClientApi& api, ClientChecker& checker, const Request& request)
    {
        std::shared_ptr<Outcome> outcome;
        auto handler = checker.handler(outcome);
        std::atomic<bool> isOver{false};
        outcome->onEnd = [this, &isOver] {
            isOver = true;
            notify();
        };
        api.request(request, std::move(handler));
        EXPECT_TRUE(await([&isOver] { return isOver.load(); }));
        return outcome;
    }

    Violations violations;
    std::mutex m_lock;
    comm::Condition m_changed;
    std::filesystem::path m_runDir;
};

TEST_F(BackendThreads, ManyCallersShareOneConnection)
{
    CheckedService service(violations, "service");
    auto server = makeBackend("server");
    auto clientBackend = makeBackend("client");
    Client client(*clientBackend, violations, "ipc://server/service");
    ASSERT_NO_FATAL_FAILURE(connect(*server, service, client));
    std::atomic<int> answered{0};
    std::vector<std::unique_ptr<comm::ActiveObject>> callers;
    for (int i = 0; i < 4; ++i) {
        callers.push_back(std::make_unique<comm::ActiveObject>("test.caller"));
        post(*callers.back(), [this, &client, &answered, i] {
            for (int n = 0; n < 100; ++n) {
                const std::string body(static_cast<std::size_t>(n * i * 500), static_cast<char>('a' + i));
                const auto outcome = call(client.api(), client.checker, retrieve("/echo", body));
                answered += outcome->isCompleted && outcome->values == std::vector<std::string>{body} ? 1 : 0;
            }
        });
    }
    callers.clear(); // stops, which runs what was queued
    EXPECT_EQ(answered, 400);
    client.release();
}

TEST_F(BackendThreads, CancelWaitsForTheRunningCall)
{
    CheckedService service(violations, "service");
    auto server = makeBackend("server");
    auto clientBackend = makeBackend("client");
    Client client(*clientBackend, violations, "ipc://server/service");
    ASSERT_NO_FATAL_FAILURE(connect(*server, service, client));

    std::atomic<bool> isInside{false};
    std::atomic<bool> isCancelled{false};
    const auto stream = client.request(retrieve("/stream"));
    stream->onValue = [&] {
        isInside = true;
        notify();
        EXPECT_FALSE(await([&] { return isCancelled.load(); }, 100 * comm::MILLISECOND));
    };
    call(client.api(), client.checker, retrieve("/echo")); // behind it on the same connection
    service.take()->onNext(value("1"));
    ASSERT_TRUE(await([&] { return isInside.load(); }));
    client.cancel(*stream);
    isCancelled = true;
    EXPECT_TRUE(client.checker.isDestroyed(*stream));
    client.release();
}

/// Threads that ask and cancel as fast as they can, while the test pulls everything away under their hands.
class BackendTraffic : public BackendThreads {
protected:
    void begin(const std::vector<KesaClientApi*>& apis, ClientChecker& checker)
    {
        for (int i = 0; i < 3; ++i) {
            m_threads.push_back(std::make_unique<comm::ActiveObject>("test.traffic"));
            post(*m_threads.back(), [this, apis, &checker, i] {
                for (unsigned n = 0; !m_isOver; ++n) {
                    KesaClientApi& api = *apis[n % apis.size()];
                    if (n % 8 == 0) { // keeps pace with the loop
                        keep(call(api, checker, retrieve("/echo", "x")));
                        notify();
                        continue;
                    }
                    std::shared_ptr<Outcome> outcome;
                    auto handler = checker.handler(outcome);
                    void* const handle = api.request(retrieve("/stream", "x"), std::move(handler));
                    if ((n + static_cast<unsigned>(i)) % 2 == 0) {
                        api.cancel(handle);
                        checker.cancelled(*outcome);
                    }
                    keep(std::move(outcome));
                }
            });
        }
    }
    void keep(std::shared_ptr<Outcome> outcome)
    {
        const std::lock_guard lock(m_outcomesLock);
        m_outcomes.push_back(std::move(outcome));
        ++m_issued;
    }
    void awaitMore(std::size_t requests)
    {
        const std::size_t target = m_issued + requests;
        ASSERT_TRUE(await([&] { return m_issued >= target; }));
    }
    void end()
    {
        m_isOver = true;
        m_threads.clear();
    }

    std::atomic<bool> m_isOver{false};
    std::atomic<std::size_t> m_issued{0};
    std::mutex m_outcomesLock;
    std::vector<std::shared_ptr<Outcome>> m_outcomes;
    std::vector<std::unique_ptr<comm::ActiveObject>> m_threads;
};

TEST_F(BackendTraffic, WithdrawReleaseAndStopInTheMiddleOfIt)
{
    auto server = makeBackend("server");
    auto clientBackend = makeBackend("client");
    std::vector<std::unique_ptr<CheckedService>> services;
    const std::string locator = "ipc://server/service";
    Client remote(*clientBackend, violations, locator);
    Client local(*server, violations, locator);
    for (Client* const client : {&remote, &local}) {
        watch(*client);
        client->start();
    }
    // Requests are issued from many threads in the middle of reconnections: what they hear is checked by their own
    // checker, which knows of no connection.
    ClientChecker checker(violations, "traffic");
    const std::shared_ptr<void> ending(nullptr, [this](void*) { end(); }); // before what they use dies
    begin({&remote.api(), &local.api()}, checker);
    for (int round = 0; round < 20; ++round) {
        services.push_back(std::make_unique<CheckedService>(violations, "service"));
        ASSERT_FALSE(server->provideOnLocator(url(locator), services.back().get()));
        ASSERT_TRUE(await([&] { return remote.checker.isConnected() && local.checker.isConnected(); }))
            << "round " << round << ", remote " << remote.checker.isConnected() << ", local "
            << local.checker.isConnected();
        awaitMore(100);
        server->unprovide(url(locator));
        services.back()->withdrawn();
        EXPECT_EQ(services.back()->open(), 0U);
        ASSERT_TRUE(await([&] { return !remote.checker.isConnected() && !local.checker.isConnected(); }));
    }
    services.push_back(std::make_unique<CheckedService>(violations, "last"));
    ASSERT_FALSE(server->provideOnLocator(url(locator), services.back().get()));
    ASSERT_TRUE(await([&] { return remote.checker.isConnected(); }));
    awaitMore(100);
    local.release();
    awaitMore(100);
    server->stop();
    services.back()->withdrawn();
    awaitMore(100);
    clientBackend->stop();
    remote.checker.released();
    awaitMore(100);
    end();
    for (const auto& outcome : m_outcomes) {
        EXPECT_TRUE(outcome->isDestroyed);
        EXPECT_TRUE(outcome->hasEnded() || outcome->isCancelled);
    }
    remote.forgetBackend();
}

} // namespace
} // namespace kesa::commadapter::test
