// The end of a runtime in the middle of everything, handlers that call back from everywhere, and the same with threads.
#include "RuntimeFixture.h"

#include <pthread.h>

#include <thread>

namespace kesa::runtime::v02::test {
namespace {

class ShutdownTest : public RuntimeFixture {
protected:
    /// One operation on one of a few paths; its handler calls one itself, down to `depth`.
    void callOne(int depth)
    {
        if (m_called == nullptr || depth == 0) {
            return;
        }
        const std::string path = std::string("/") + static_cast<char>('a' + m_scheduler.draw(3));
        const auto hook = [this, depth] { callOne(depth - 1); };
        switch (m_kept.size() < 30 ? m_scheduler.draw(8) : 7) {
        case 0:
            keep(m_called->registerService(path, service(), ServiceDef::TypeEnum::pex, {},
                                           handler<ServiceDef>("h", hook)));
            break;
        case 1:
            keep(m_called->trackService(path, handler<ServiceUpdate>("h", hook)));
            break;
        case 2:
            keep(m_called->trackServices(Query(m_scheduler.draw(8) == 0 ? "[" : "**"),
                                         handler<ServiceUpdate>("h", hook)));
            break;
        case 3:
            keep(m_called->resolveService(url("fake://me" + path), handler<ProxyState>("h", hook)));
            break;
        case 4:
            keep(m_called->trackAndResolveService(path, handler<optional<ResolvedService>>("h", hook)));
            break;
        case 5:
            keep(m_called->trackAndResolveServices(Query("**"), handler<ResolvedServiceState>("h", hook)));
            break;
        case 6:
            m_network->disconnected("fake://me" + path);
            break;
        default:
            disposeOne();
            break;
        }
    }
    void disposeAll()
    {
        for (Disposable& disposable : std::exchange(m_kept, {})) {
            disposable.dispose();
        }
    }

    IRuntimeRegistry* m_called = nullptr; ///< also while it ends

private:
    void keep(Disposable disposable) { m_kept.push_back(std::move(disposable)); }
    void disposeOne()
    {
        if (!m_kept.empty()) {
            Disposable& chosen = m_kept[m_scheduler.draw(m_kept.size())];
            Disposable disposing = chosen;
            if (m_scheduler.draw(2) == 0) { // else it is disposed again some time
                chosen = m_kept.back();
                m_kept.pop_back();
            }
            disposing.dispose();
        }
    }

    std::vector<Disposable> m_kept;
};

TEST_F(ShutdownTest, endsInTheMiddleOfEverything)
{
    tracing::setThreshold("*", 5); // a thousand rounds of traces are of no use
    m_network->isAutomatic = true;
    for (int round = 0; round < 1000; ++round) {
        m_runtime = startRuntime();
        m_called = m_runtime.get();
        for (std::uint64_t calls = m_scheduler.draw(20); calls > 0; --calls) {
            callOne(2);
            for (std::uint64_t steps = m_scheduler.draw(6); steps > 0; --steps) {
                m_scheduler.step();
            }
        }
        if (m_scheduler.draw(4) == 0) {
            disposeAll();
        }
        m_runtime.reset();
        m_called = nullptr;
        disposeAll();
        run();
        ASSERT_EQ(m_livingServices, 0) << "round " << round;
        ASSERT_EQ(m_network->livingClientObjects, 0) << "round " << round;
        ASSERT_THAT(m_assertions->take(), IsEmpty()) << "round " << round;
        m_network->provided.clear();
        m_journal->take();
    }
}

/// With the runtime's own threads.
TEST(RuntimeThreads, deliverWhereTheyShouldAndEndWhileOthersDispose)
{
    const auto network = std::make_shared<FakeNetwork>();
    network->isAutomatic = true;
    commadapter::setBackendFactory([network](const std::string& process, const std::string&) {
        return std::make_unique<FakeBackend>(network, process);
    });
    tracing::setThreshold("*", 5);
    std::atomic<int> services{0};
    for (int round = 0; round < 30; ++round) {
        auto runtime = std::make_unique<KesaRuntimeImpl>(KesaConfig("me", R"({"use_local_registry": true})"));
        ASSERT_FALSE(runtime->start());
        const auto muted = std::make_shared<Journal>();
        const auto journal = std::make_shared<Journal>();
        const auto registerA = [&](const char* name) {
            const auto hook = [journal, name] {
                char thread[16] = {};
                pthread_getname_np(pthread_self(), thread, sizeof(thread));
                journal->add(name + (" on " + std::string(thread)));
            };
            return runtime->registerService("/a", std::make_shared<FakeService>(services), ServiceDef::TypeEnum::pex,
                                            {}, noting<ServiceDef>(muted, name, hook));
        };
        auto first = registerA("first");
        auto second = registerA("second");
        std::vector<Disposable> subscriptions;
        for (int i = 0; i < 20; ++i) {
            subscriptions.push_back(runtime->trackService("/a", noting<ServiceUpdate>(muted, "t")));
            subscriptions.push_back(
                runtime->trackAndResolveServices(Query("**"), noting<ResolvedServiceState>(muted, "q")));
        }
        // Two threads dispose the same subscriptions while the runtime ends under a third.
        auto disposeAll = [subscriptions]() mutable {
            for (Disposable& subscription : subscriptions) {
                subscription.dispose();
            }
        };
        std::thread one(disposeAll);
        std::thread two(disposeAll);
        registerA("third").dispose();
        runtime.reset();
        one.join();
        two.join();
        first.dispose();
        second.dispose();
        const Lines lines = journal->take();
        EXPECT_THAT(lines, Contains("first on kesa-executor"));
        EXPECT_THAT(lines, Contains("second on kesa-updater"));
        EXPECT_THAT(lines, Not(Contains("second on kesa-executor")));
        EXPECT_EQ(network->livingClientObjects, 0);
    }
    EXPECT_EQ(services, 0);
    commadapter::setBackendFactory({});
    tracing::setThreshold("*", 3);
}

} // namespace
} // namespace kesa::runtime::v02::test
