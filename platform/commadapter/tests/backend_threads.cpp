// The backend on real threads over real sockets: what `cancel`, `release`, `unprovide` and `stop` promise while other
// threads are in the middle of it.

#include "backend_support.h"
#include "transport/IpcTransport.h"

#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/headers.h>

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
        m_runDir = mkdtemp(directory.data());
        ::tracing::setSink(std::make_shared<::tracing::CapturingSink>());
        server = makeBackend("server");
        clientBackend = makeBackend("client");
        remote = connect(*clientBackend);
    }
    ~BackendThreads() override
    {
        m_isOver = true;
        m_threads.clear();
        local.reset();
        remote.reset();
        clientBackend.reset();
        server.reset();
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
    std::unique_ptr<Client> connect(IBackend& backend)
    {
        auto client = std::make_unique<Client>(backend, LOCATOR);
        client->checker.onChange = [this] { notify(); };
        client->start();
        return client;
    }
    void provide()
    {
        services.push_back(std::make_unique<CheckedService>("service"));
        ASSERT_FALSE(server->provideOnLocator(url(LOCATOR), services.back().get()));
        ASSERT_TRUE(await([this] { return remote->checker.isConnected(); }));
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

    // Threads that ask and cancel as fast as they can; some requests run out of time meanwhile.
    void beginTraffic(const std::vector<KesaClientApi*>& apis)
    {
        for (unsigned i = 0; i < 3; ++i) {
            m_threads.push_back(std::make_unique<comm::ActiveObject>("test.traffic"));
            post(*m_threads.back(), [this, apis, i] {
                for (unsigned n = 0; !m_isOver; ++n) {
                    issue(*apis[n % apis.size()], n % 8 == 0, (n + i) % 2 == 0, n % 3 == 0);
                }
            });
        }
    }
    void issue(KesaClientApi& api, bool isAwaited, bool isCancelled, bool isLimited)
    {
        std::shared_ptr<Outcome> outcome;
        if (isAwaited) { // keeps pace with the loop
            outcome = call(api, traffic, retrieve("/echo", "x"));
        } else {
            auto handler = traffic.handler(outcome);
            Request request = retrieve("/stream", "x");
            if (isLimited) {
                request.setHeader(headers::TIMEOUT, 1);
                outcome->onEnd = [this] {
                    ++m_limitedEnds;
                    notify();
                };
            }
            void* const handle = api.request(request, std::move(handler));
            if (isCancelled) {
                api.cancel(handle);
                traffic.cancelled(*outcome);
            }
        }
        const std::lock_guard lock(m_lock);
        m_outcomes.push_back(std::move(outcome));
        m_changed.notifyAll();
    }
    void awaitTraffic()
    {
        std::unique_lock lock(m_lock);
        const std::size_t target = m_outcomes.size() + 100;
        ASSERT_TRUE(comm::waitFor(
            m_changed, lock, [&] { return m_outcomes.size() >= target; }, comm::now() + 30 * comm::SECOND));
    }

    const std::string LOCATOR = "ipc://server/service";
    std::mutex m_lock;
    comm::Condition m_changed;
    std::filesystem::path m_runDir;
    std::vector<std::unique_ptr<CheckedService>> services; ///< what was withdrawn stays
    std::unique_ptr<IBackend> server;
    std::unique_ptr<IBackend> clientBackend;
    std::unique_ptr<Client> remote;
    std::unique_ptr<Client> local;
    /// Of requests issued from many threads in the middle of reconnections; it knows of no connection.
    ClientChecker traffic{"traffic"};
    std::atomic<bool> m_isOver{false};
    std::atomic<unsigned> m_limitedEnds{0};
    std::vector<std::shared_ptr<Outcome>> m_outcomes;
    std::vector<std::unique_ptr<comm::ActiveObject>> m_threads;
};

TEST_F(BackendThreads, CancelAndReleaseWaitForTheRunningCall)
{
    provide();
    std::atomic<bool> isInside{false};
    std::atomic<bool> hasReturned{false};
    const auto linger = [&] {
        isInside = true;
        notify();
        EXPECT_FALSE(await([&] { return hasReturned.load(); }, 100 * comm::MILLISECOND));
    };
    const auto stream = remote->request(retrieve("/stream"));
    stream->onValue = linger;
    call(remote->api(), remote->checker, retrieve("/echo")); // behind it on the same connection
    services.back()->take()->onNext(value("1"));
    ASSERT_TRUE(await([&] { return isInside.load(); }));
    remote->cancel(*stream);
    hasReturned = true;
    EXPECT_TRUE(remote->checker.isDestroyed(*stream));

    isInside = hasReturned = false;
    remote->checker.onChange = linger;
    server->unprovide(url(LOCATOR));
    ASSERT_TRUE(await([&] { return isInside.load(); }));
    remote->release();
    hasReturned = true;
    clientBackend->stop(); // and what may still run
}

TEST_F(BackendThreads, TimeRunsOutInTheMiddleOfTraffic)
{
    local = connect(*server);
    provide();
    beginTraffic({&remote->api(), &local->api()});
    EXPECT_TRUE(await([this] { return m_limitedEnds >= 1000; }));
    m_isOver = true;
    m_threads.clear();
    clientBackend->stop();
    server->stop();
    services.back()->withdrawn();
    for (const auto& outcome : m_outcomes) {
        EXPECT_TRUE(outcome->isDestroyed);
    }
    remote->forgetBackend();
    local->forgetBackend();
}

TEST_F(BackendThreads, WithdrawReleaseAndStopInTheMiddleOfTraffic)
{
    local = connect(*server);
    const auto areConnected = [&](bool expected) {
        return await(
            [&] { return remote->checker.isConnected() == expected && local->checker.isConnected() == expected; });
    };
    beginTraffic({&remote->api(), &local->api()});
    for (int round = 0; round < 20; ++round) {
        provide();
        ASSERT_TRUE(areConnected(true)) << "round " << round;
        awaitTraffic();
        server->unprovide(url(LOCATOR));
        services.back()->withdrawn();
        EXPECT_EQ(services.back()->open(), 0U);
        ASSERT_TRUE(areConnected(false)) << "round " << round;
    }
    provide();
    awaitTraffic();
    local->release();
    awaitTraffic();
    server->stop();
    services.back()->withdrawn();
    awaitTraffic();
    clientBackend->stop();
    remote->checker.released();
    awaitTraffic();
    m_isOver = true;
    m_threads.clear();
    for (const auto& outcome : m_outcomes) {
        EXPECT_TRUE(outcome->isDestroyed);
        EXPECT_TRUE(outcome->isOver());
    }
    remote->forgetBackend();
}

} // namespace
} // namespace kesa::commadapter::test
