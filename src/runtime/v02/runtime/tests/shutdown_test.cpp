// The end of a runtime in the middle of everything, handlers that call back from everywhere, and the same with threads.
#include "RuntimeFixture.h"

#include <pthread.h>

#include <thread>

namespace kesa::runtime::v02::test {
namespace {

/// Calls every operation, keeps what it gets, and now and then disposes some of it.
class Caller {
public:
    Caller(std::shared_ptr<FakeNetwork> network, std::function<std::uint64_t(std::uint64_t)> draw)
        : m_network(std::move(network)), m_draw(std::move(draw))
    {}

    void use(IRuntimeRegistry* runtime) { m_runtime = runtime; }

    /// One operation on one of a few paths; its handler calls one itself, down to `depth`.
    void callOne(int depth)
    {
        if (m_runtime == nullptr || depth == 0) {
            return;
        }
        const std::string path = std::string("/") + static_cast<char>('a' + m_draw(3));
        const auto hook = [this, depth] { callOne(depth - 1); };
        const auto journal = std::make_shared<Journal>();
        switch (m_kept.size() < 30 ? m_draw(8) : 7) {
        case 0:
            keep(m_runtime->registerService(path, std::make_shared<FakeService>(&living), ServiceDef::TypeEnum::pex, {},
                                            make<ServiceDef>(journal, hook)));
            break;
        case 1:
            keep(m_runtime->trackService(path, make<ServiceUpdate>(journal, hook)));
            break;
        case 2:
            keep(m_runtime->trackServices(Query(m_draw(8) == 0 ? "[" : "**"), make<ServiceUpdate>(journal, hook)));
            break;
        case 3:
            keep(m_runtime->resolveService(url("fake://me" + path), make<ProxyState>(journal, hook)));
            break;
        case 4:
            keep(m_runtime->trackAndResolveService(path, make<optional<ResolvedService>>(journal, hook)));
            break;
        case 5:
            keep(m_runtime->trackAndResolveServices(Query("**"), make<ResolvedServiceState>(journal, hook)));
            break;
        case 6:
            m_network->disconnected("fake://me" + path);
            break;
        default:
            disposeOne();
            break;
        }
    }
    void disposeOne()
    {
        if (m_kept.empty()) {
            return;
        }
        Disposable& chosen = m_kept[m_draw(m_kept.size())];
        Disposable disposing = chosen;
        if (m_draw(2) == 0) { // else it is disposed again some time
            chosen = m_kept.back();
            m_kept.pop_back();
        }
        disposing.dispose();
    }
    void disposeAll()
    {
        auto kept = std::exchange(m_kept, {});
        for (Disposable& disposable : kept) {
            disposable.dispose();
        }
    }

    std::atomic<int> living{0};

private:
    template <class T>
    std::unique_ptr<IResponseHandler<T>> make(const std::shared_ptr<Journal>& journal, std::function<void()> hook)
    {
        return std::make_unique<NotingHandler<T>>(journal, "h", std::move(hook));
    }
    void keep(Disposable disposable) { m_kept.push_back(std::move(disposable)); }

    std::shared_ptr<FakeNetwork> m_network;
    std::function<std::uint64_t(std::uint64_t)> m_draw;
    IRuntimeRegistry* m_runtime = nullptr;
    std::vector<Disposable> m_kept;
};

class ShutdownTest : public RuntimeFixture {};

TEST_F(ShutdownTest, endsInTheMiddleOfEverything)
{
    tracing::setThreshold("*", 5); // a thousand rounds of traces are of no use
    m_network->isAutomatic = true;
    for (int round = 0; round < 1000; ++round) {
        Caller caller(m_network, [this](std::uint64_t bound) { return m_scheduler.draw(bound); });
        m_runtime = startRuntime();
        caller.use(m_runtime.get());
        for (std::uint64_t calls = m_scheduler.draw(20); calls > 0; --calls) {
            caller.callOne(2);
            for (std::uint64_t steps = m_scheduler.draw(6); steps > 0; --steps) {
                m_scheduler.step();
            }
        }
        if (m_scheduler.draw(4) == 0) {
            caller.disposeAll();
        }
        m_runtime.reset();
        caller.use(nullptr);
        caller.disposeAll();
        run();
        ASSERT_EQ(caller.living, 0) << "round " << round;
        ASSERT_EQ(m_network->livingClientObjects, 0) << "round " << round;
        ASSERT_THAT(m_assertions->take(), IsEmpty()) << "round " << round;
        m_network->provided.clear();
    }
    EXPECT_THAT(m_assertions->take(), IsEmpty());
}

TEST_F(ShutdownTest, whatIsDisposedLeavesNothingBehind)
{
    tracing::setThreshold("*", 5);
    m_network->isAutomatic = true;
    Caller caller(m_network, [this](std::uint64_t bound) { return m_scheduler.draw(bound); });
    m_runtime = startRuntime();
    caller.use(m_runtime.get());
    for (int calls = 0; calls < 1000; ++calls) {
        caller.callOne(2);
        m_scheduler.step();
    }
    caller.use(nullptr);
    caller.disposeAll();
    run();
    EXPECT_EQ(caller.living, 0);
    EXPECT_EQ(m_network->openClients(), 0U);
    EXPECT_THAT(m_network->provided, IsEmpty());
    tracing::setThreshold("*", 1);
    EXPECT_THAT(traced(2, [&] { m_runtime.reset(); }), ElementsAre("2 [dtor] m_runtimeEntries 0"));
}

/// With the runtime's own threads.
TEST(RuntimeThreads, deliverWhereTheyShouldAndEndWhileOthersDispose)
{
    const auto network = std::make_shared<FakeNetwork>();
    network->isAutomatic = true;
    commadapter::setBackendFactoryForTest([network](const std::string& process, const std::string&) {
        return std::make_unique<FakeBackend>(network, process);
    });
    tracing::setThreshold("*", 5);
    const auto thread = [] {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        return std::string(name);
    };
    for (int round = 0; round < 30; ++round) {
        auto runtime = std::make_unique<KesaRuntimeImpl>(KesaConfig("me", R"({"use_local_registry": true})"));
        ASSERT_FALSE(runtime->start());
        const auto journal = std::make_shared<Journal>();
        const auto noting = [&journal, &thread](const char* name) {
            return [journal, thread, name] { journal->add(std::string(name) + " on " + thread()); };
        };
        const auto muted = std::make_shared<Journal>();
        const auto registerA = [&](const char* name) {
            return runtime->registerService("/a", std::make_shared<FakeService>(), ServiceDef::TypeEnum::pex, {},
                                            std::make_unique<NotingHandler<ServiceDef>>(muted, name, noting(name)));
        };
        auto first = registerA("first");
        auto second = registerA("second");
        std::vector<Disposable> subscriptions;
        for (int i = 0; i < 20; ++i) {
            subscriptions.push_back(runtime->trackService(
                "/a", std::make_unique<NotingHandler<ServiceUpdate>>(muted, "t", noting("track"))));
            subscriptions.push_back(runtime->trackAndResolveServices(
                Query("**"), std::make_unique<NotingHandler<ResolvedServiceState>>(muted, "q", noting("resolve"))));
        }
        // Two threads dispose the same subscriptions while the runtime ends under a third.
        auto disposeAll = [subscriptions]() mutable {
            for (Disposable& subscription : subscriptions) {
                subscription.dispose();
            }
        };
        std::thread one(disposeAll);
        std::thread two(disposeAll);
        std::thread caller([&registerA] { registerA("third").dispose(); });
        caller.join();
        runtime.reset();
        one.join();
        two.join();
        first.dispose();
        second.dispose();
        EXPECT_TRUE(journal->contains("first on kesa-executor"));
        EXPECT_TRUE(journal->contains("second on kesa-updater"));
        EXPECT_FALSE(journal->contains("second on kesa-executor"));
        EXPECT_EQ(network->livingClientObjects, 0);
    }
    commadapter::setBackendFactoryForTest({});
    tracing::setThreshold("*", 3);
}

} // namespace
} // namespace kesa::runtime::v02::test
