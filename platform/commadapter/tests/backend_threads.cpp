// The backend on real threads over real sockets: what `cancel`, `release`, `unprovide` and `stop` promise while other
// threads are in the middle of it.

#include "backend_support.h"
#include "transport/IpcTransport.h"

#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <kesa/FuncCallEvent.h>

#include <atomic>
#include <filesystem>

namespace kesa::commadapter::test {
namespace {

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
        endTraffic();
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
        client->onChange = [this] { notify(); };
        return client;
    }
    void provide()
    {
        services.push_back(std::make_unique<CheckedService>());
        ASSERT_FALSE(server->provideOnLocator(url(LOCATOR), services.back().get()));
        ASSERT_TRUE(await([this] { return remote->isConnected(); }));
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

    // Threads that ask and cancel as fast as they can; some requests run out of time meanwhile.
    void beginTraffic()
    {
        for (unsigned i = 0; i < 3; ++i) {
            m_threads.push_back(std::make_unique<comm::ActiveObject>("test.traffic"));
            post(*m_threads.back(), [this, i] {
                for (unsigned n = 0; !m_isOver; ++n) {
                    issue((n % 2 == 0 ? *remote : *local).api(), n % 8 == 0, (n + i) % 2 == 0, n % 3 == 0);
                }
            });
        }
    }
    void issue(KesaClientApi& api, bool isAwaited, bool isCancelled, bool isLimited)
    {
        std::shared_ptr<Outcome> outcome;
        auto handler = traffic.makeHandler(outcome);
        std::atomic<bool> isOver{false};
        Request request = retrieve(isAwaited ? "/echo" : "/stream", "x");
        if (isAwaited) { // keeps pace with the loop
            outcome->onEnd = [this, &isOver] {
                isOver = true;
                notify();
            };
        } else if (isLimited) {
            request.setHeader(headers::TIMEOUT, 1);
            outcome->onEnd = [this] { ++m_limitedEnds; };
        }
        void* const handle = api.request(request, std::move(handler));
        if (isAwaited) {
            EXPECT_TRUE(await([&isOver] { return isOver.load(); }));
        } else if (isCancelled) {
            api.cancel(handle);
            traffic.cancelled(*outcome);
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
    void endTraffic()
    {
        m_isOver = true;
        m_threads.clear();
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
    Client traffic{"traffic"};
    std::atomic<bool> m_isOver{false};
    std::atomic<unsigned> m_limitedEnds{0};
    Outcomes m_outcomes;
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
    issue(remote->api(), true, false, false); // behind it on the same connection
    services.back()->take()->onNext(value("1"));
    ASSERT_TRUE(await([&] { return isInside.load(); }));
    remote->cancel(*stream);
    hasReturned = true;
    EXPECT_TRUE(remote->isDestroyed(*stream));

    isInside = hasReturned = false;
    remote->onChange = linger;
    server->unprovide(url(LOCATOR));
    ASSERT_TRUE(await([&] { return isInside.load(); }));
    remote->release();
    hasReturned = true;
    clientBackend->stop(); // and what may still run
}

TEST_F(BackendThreads, WithdrawReleaseAndStopInTheMiddleOfTraffic)
{
    local = connect(*server);
    const auto areConnected = [&](bool expected) {
        return await([&] { return remote->isConnected() == expected && local->isConnected() == expected; });
    };
    beginTraffic();
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
    while (m_limitedEnds < 1000) {
        awaitTraffic();
    }
    local->release();
    awaitTraffic();
    server->stop();
    services.back()->withdrawn();
    awaitTraffic();
    clientBackend->stop();
    remote->forgetBackend();
    awaitTraffic();
    endTraffic();
    EXPECT_EQ(countOf(m_outcomes, [](const auto& o) { return o->isDestroyed && o->isOver(); }), m_outcomes.size());
}

} // namespace
} // namespace kesa::commadapter::test
