// The facade, the order of the virtual tables, start and shutdown.
#include "RuntimeFixture.h"

#include <TemporaryFolder.h>
#include <Variable.h>
#include <comm/Condition.h>
#include <kesa/FuncCallEvent.h>
#include <kesa/runtime/v02/KesaRuntime.h>

#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kesa::runtime::v02::test {
namespace {

/// The slot a call of a virtual member goes through, as the Itanium ABI writes it into a pointer to member.
template <class Member>
std::size_t slotOf(Member member)
{
    std::ptrdiff_t word = 0;
    static_assert(sizeof(member) >= sizeof(word));
    std::memcpy(&word, &member, sizeof(word));
    return static_cast<std::size_t>(word - 1) / sizeof(void*);
}

TEST(VirtualTables, areInTheirOrder)
{
    using R = IRuntimeRegistry;
    using T = ServiceDef::TypeEnum;
    using Api = std::shared_ptr<IKesaApi>;
    using Versions = std::vector<std::string>;
    using Registrator = std::unique_ptr<RegistrationHandler>&&;
    using Tracker = std::unique_ptr<TrackingHandler>&&;
    using Proxy = std::unique_ptr<ProxyHandler>&&;
    EXPECT_EQ(
        slotOf<Disposable (R::*)(const std::string&, Api, T, const GenericObject&, Registrator)>(&R::registerService),
        0U);
    EXPECT_EQ(slotOf<Disposable (R::*)(const std::string&, Api, T, const Versions&, const GenericObject&, Registrator)>(
                  &R::registerService),
              1U);
    EXPECT_EQ((slotOf<Disposable (R::*)(const std::string&, bool, Tracker)>(&R::trackService)), 2U);
    EXPECT_EQ((slotOf<Disposable (R::*)(const std::string&, Tracker)>(&R::trackService)), 3U);
    EXPECT_EQ(slotOf(&R::trackServices), 4U);
    EXPECT_EQ((slotOf<Disposable (R::*)(const url&, Proxy)>(&R::resolveService)), 5U);
    EXPECT_EQ((slotOf<Disposable (R::*)(const ServiceDef&, Proxy)>(&R::resolveService)), 6U);
    EXPECT_EQ(slotOf(&R::trackAndResolveService), 7U);
    EXPECT_EQ(slotOf(&R::trackAndResolveServices), 8U);
    EXPECT_EQ(slotOf(&IKesaRuntime::getConfigAccessor), 11U);
    EXPECT_EQ(slotOf(&comm::ActiveObjectEvent::execute), 2U);
    EXPECT_EQ(slotOf(&comm::ActiveObjectEvent::isType), 3U);
    EXPECT_EQ(slotOf(&TrackingHandler::onNext), 2U);
    EXPECT_EQ(slotOf(&TrackingHandler::onError), 3U);
    EXPECT_EQ(slotOf(&TrackingHandler::onCompleted), 4U);
    EXPECT_EQ(slotOf(&IClientConnectionListener::clientConnected), 2U);
    EXPECT_EQ(slotOf(&IClientConnectionListener::clientError), 4U);
    EXPECT_EQ(slotOf(&commadapter::IBackend::start), 2U);
    EXPECT_EQ(slotOf(&commadapter::IBackend::isLocal), 10U);
}

class RuntimeTest : public RuntimeFixture {};

TEST_F(RuntimeTest, theFacadeHasOneInstanceAndReportsMisuse)
{
    const kesa::test::Variable none("KESA_CONFIG_DIR", "/nonexistent");
    EXPECT_FALSE(KesaRuntime::isRunning());
    EXPECT_EQ(KesaRuntime::getInstance(), nullptr);
    const auto isThere = [] { return KesaRuntime::withInstance([](IKesaRuntime&) {}); };
    EXPECT_FALSE(isThere());
    KesaRuntime::shutdown();
    EXPECT_THAT(m_assertions.take(),
                ElementsAre(HasSubstr("singeton_impl!=nullptr, getInstance, this process has no runtime: call init"),
                            HasSubstr("singeton_impl!=nullptr, shutdown, this process has no runtime: call init")));

    EXPECT_FALSE(KesaRuntime::initInstance("p"));
    EXPECT_TRUE(KesaRuntime::isRunning());
    IKesaRuntime* const instance = KesaRuntime::getInstance();
    EXPECT_EQ(instance->getConfigAccessor().getOwnProcessName(), "p");
    EXPECT_TRUE(isThere());
    EXPECT_FALSE(KesaRuntime::initInstance("q"));
    EXPECT_EQ(KesaRuntime::getInstance(), instance);
    EXPECT_THAT(m_assertions.take(),
                ElementsAre(HasSubstr("singeton_impl==nullptr, initInstance, this process has a runtime, which getI")));

    // From a handler it would wait for itself.
    auto tracking = instance->trackService("/a", handler<ServiceUpdate>("t", [] { KesaRuntime::shutdown(); }));
    auto registration = instance->registerService("/a", service(), ServiceDef::TypeEnum::pex, GenericObject(),
                                                  handler<ServiceDef>("r"));
    run();
    EXPECT_THAT(m_assertions.take(), ElementsAre(HasSubstr("!isWaitedFor(), shutdown, ")));
    tracking.dispose();
    run();
    m_assertions.take();
    registration.dispose();
    // Nor while it is under way: here what dies in it stands for another thread.
    std::shared_ptr<void> dying(nullptr, [&isThere](void*) {
        EXPECT_FALSE(isThere());
        KesaRuntime::shutdown();
        EXPECT_FALSE(KesaRuntime::initInstance("q"));
    });
    auto kept = std::make_unique<responsehandlers::FuncResponseHandler<ServiceUpdate>>(
        [dying](const ServiceUpdate&) { return false; }, [](const Response&) {}, [] {});
    static_cast<void>(instance->trackService("/b", std::move(kept)));
    run();
    dying.reset();
    KesaRuntime::shutdown();
    EXPECT_THAT(m_assertions.take(), ElementsAre(HasSubstr("!isChanging, shutdown, initInstance or shutdown is still"),
                                                 HasSubstr("!isChanging, initInstance, ")));
    EXPECT_FALSE(KesaRuntime::isRunning());
}

TEST_F(RuntimeTest, aDocumentOfItsOwnCountsOnlyWithoutAConfiguredOne)
{
    const kesa::test::TemporaryFolder folder;
    const std::string file = folder / "kesa.json";
    std::ofstream(file) << R"({"use_local_registry": true, "backends": ["comm"]})";
    const auto connected = [this](const char* variable, const std::string& value) {
        const kesa::test::Variable set(variable, value);
        EXPECT_FALSE(KesaRuntime::initInstance("p", KesaRuntime::WITH_REGISTRYD));
        run();
        EXPECT_FALSE(KesaRuntime::isRegistryHost());
        KesaRuntime::shutdown();
        return m_network->calls();
    };
    m_network->handledScheme = "ipc";
    EXPECT_THAT(connected("KESA_CONFIG_DIR", "/nonexistent"), Contains("connect ipc://kesa-registryd/registry"));
    EXPECT_THAT(connected("KESA_CONFIG", file), Not(Contains(HasSubstr("connect"))));
}

TEST_F(RuntimeTest, startsOnceAndEndsInOrder)
{
    {
        KesaRuntimeImpl runtime(KesaConfig("me", R"({"use_local_registry": true})"));
        EXPECT_FALSE(runtime.isRunning());
        EXPECT_FALSE(runtime.start());
        EXPECT_THAT(happened(), ElementsAre("runtime start"));
        EXPECT_THAT(traced(2, [&] { EXPECT_FALSE(runtime.start()); }),
                    ElementsAre("2 [KesaRuntimeImpl::start] 'me'", "2 KesaRuntimeImpl::start called twice"));
        auto tracking = runtime.trackService("/a", handler<ServiceUpdate>("t"));
        run();
        m_journal->take();
        m_traces->take();
        EXPECT_THAT(m_network->calls(), ElementsAre("start me"));
    }
    EXPECT_THAT(m_network->calls(), ElementsAre("stop me"));
    EXPECT_THAT(m_traces->take(), ElementsAre("1 [dtor]", "1 [shutdown] 'me'", "2 [dtor] m_runtimeEntries 1"));
    EXPECT_THAT(m_journal->take(), ElementsAre("runtime stop", "t: ~"));
}

TEST_F(RuntimeTest, knowsHowItStandsToTheRegistryAlsoAfterItsEnd)
{
    const auto reasonsOf = [this](const std::string& locator) {
        m_runtime.reset();
        m_runtime = startRuntime(R"({"use_registry": true, "service_registry_locators": [")" + locator + "\"]}");
        return m_runtime->reasons();
    };
    m_runtime = startRuntime("{}");
    EXPECT_EQ(m_runtime->reasons()->whyUnknown("/x"),
              "this process asks no registry, since its built-in configuration has no \"use_registry\": true, and "
              "so sees its own services only; kesactl check-config shows what counts");
    KesaRuntimeImpl invalid(KesaConfig("me", "{"));
    EXPECT_THAT(invalid.reasons()->whyUnknown("/x"),
                HasSubstr("since it has no configuration file, and no valid text in place of one, and"));
    EXPECT_THAT(reasonsOf("fake://me/registry")->whyUnknown("/x"), HasSubstr("this process hosts the registry, and"));

    const std::string registry = "fake://registry/registry";
    const auto reasons = reasonsOf(registry);
    run();
    EXPECT_EQ(reasons->whyUnknown("/x"), "the registry at " + registry + " is not connected; kesactl doctor says more");
    m_network->obstacle = "it is stopped";
    EXPECT_EQ(reasons->whyUnknown("/x"),
              "the registry at " + registry + " is not connected: it is stopped; kesactl doctor says more");
    EXPECT_EQ(reasons->obstacle(url("fake://other/x")), "");
    auto resolving = resolve("fake://other/x", "p");
    run();
    EXPECT_EQ(reasons->obstacle(url("fake://other/x")), "it is stopped");
    resolving.dispose();
    run();
    EXPECT_EQ(reasons->obstacle(url("fake://other/x")), "");
    m_network->connected(registry);
    run();
    EXPECT_EQ(reasons->whyUnknown("/x"),
              "the registry at " + registry + " is connected and silent: it is stopped; kesactl why /x says more");
    m_network->obstacle.clear();
    const auto connectedAnd = [&registry](const std::string& rest) {
        return "the registry at " + registry + " is connected and " + rest + "; kesactl why /x says more";
    };
    EXPECT_EQ(reasons->whyUnknown("/x"), connectedAnd("has named nobody so far"));
    EXPECT_EQ(reasons->whyUnknownWhenAsked("/x", true), connectedAnd("names nobody"));
    EXPECT_EQ(reasons->whyUnknownWhenAsked("/x", false), connectedAnd("has not answered yet"));
    m_network->disconnected(registry);
    run();
    m_runtime.reset();
    EXPECT_EQ(reasons->whyUnknown("/x"), "the registry at " + registry + " is not connected; kesactl doctor says more");
}

TEST_F(RuntimeTest, namesTheHandlerThatHoldsALoopWhileItDoesAndAfterwards)
{
    m_runtime = startRuntime();
    bool isHolding = true;
    Lines reasons;
    const auto hold = [&] {
        if (!isHolding) {
            return;
        }
        std::mutex mutex;
        comm::Condition never;
        std::unique_lock lock(mutex);
        comm::waitFor(
            never, lock, [] { return false; }, comm::now() + 60 * comm::MILLISECOND);
        reasons.push_back(m_runtime->reasons()->whyUnknown("/x"));
    };
    auto tracking = m_runtime->trackService("/a", handler<ServiceUpdate>("t", hold));
    auto query = m_runtime->trackServices(Query("/b"), handler<ServiceUpdate>("q", hold));
    run();
    const auto told = [this](const std::function<void()>& work) {
        scheduler.runFor(comm::SECOND); // since the last line
        Lines lines = traced(3, work);
        std::erase_if(lines, [](const std::string& line) { return line.find("[loop]") == std::string::npos; });
        return lines;
    };
    const auto registering = [&](const std::string& path, const std::function<void()>& hook) {
        return told([&] {
            static_cast<void>(m_runtime->registerService(path, service(), ServiceDef::TypeEnum::pex, GenericObject(),
                                                         handler<ServiceDef>("r", hook)));
        });
    };
    const std::string rest = ", in which this process heard of no service: leave what takes long or waits to a thread "
                             "of your own, as kesa::on does";
    EXPECT_THAT(registering("/a", hold),
                ElementsAre("3 [loop] the handler of registerService, told of '/a', took 60 ms on the executor" + rest,
                            "3 [loop] the handler of trackService, told of '/a', took 60 ms on the updater" + rest));
    const auto held = [](const std::string& loop, const std::string& operation) {
        return HasSubstr("this process's " + loop + " has been held for 60 ms by the handler of " + operation +
                         " for '/a', so it hears of nothing: leave ");
    };
    EXPECT_THAT(reasons, ElementsAre(held("executor", "registerService"), held("updater", "trackService")));
    reasons.clear();
    const auto holdInside = [&] {
        if (comm::ICallWatch* const watch = comm::ICallWatch::current()) { // none for the handler's destructor
            watch->tellInside("onChange", "/a", hold);
        }
    };
    EXPECT_THAT(registering("/c", holdInside),
                ElementsAre("3 [loop] the handler of onChange, told of '/a', took 60 ms on the executor" + rest));
    EXPECT_THAT(reasons, ElementsAre(held("executor", "onChange")));
    EXPECT_EQ(comm::ICallWatch::current(), nullptr);
    EXPECT_THAT(registering("/b", {}),
                ElementsAre(HasSubstr("the handler of trackServices, told of '/b', took 60 ms")));
    EXPECT_THAT(
        told([&] { auto nowhere = m_runtime->resolveService(url("x://nowhere"), handler<ProxyState>("p", hold)); }),
        ElementsAre(HasSubstr("the handler of resolveService, told of 'x://nowhere', took 120 ms on the updater")))
        << "its error and its end";
    isHolding = false;
    EXPECT_THAT(m_runtime->reasons()->whyUnknown("/x"), HasSubstr("asks no registry"));
    m_runtime.reset();
}

TEST_F(RuntimeTest, namesTheHandlerThatThrowsBeforeTheProcessEnds)
{
    m_runtime = startRuntime();
    const auto fail = [] { throw std::runtime_error("disk full"); };
    const auto dying = [&](const std::function<Disposable()>& work) {
        ::tracing::setSink(nullptr);
        const auto subscription = work();
        run();
    };
    const std::string rest = "', has thrown, which ends this process: disk full; catch it there";
    auto tracking = m_runtime->trackService("/a", handler<ServiceUpdate>("t"));
    run();
    const auto registering = [&] {
        return m_runtime->registerService("/a", service(), ServiceDef::TypeEnum::pex, GenericObject(),
                                          handler<ServiceDef>("r", fail));
    };
    EXPECT_DEATH(dying(registering), "the handler of registerService, told of '/a" + rest);
    EXPECT_DEATH(dying([&] { return m_runtime->trackService("bad", handler<ServiceUpdate>("t", fail)); }),
                 "the handler of trackService, told of 'bad" + rest)
        << "its error";
    const auto connecting = [&] {
        auto proxy = m_runtime->resolveService(url("fake://there/a"), handler<ProxyState>("p", fail));
        run();
        m_network->connected("fake://there/a");
        return proxy;
    };
    EXPECT_DEATH(dying(connecting), "the handler of resolveService, told of 'fake://there/a" + rest);
    tracking.dispose();
    run();
}

TEST_F(RuntimeTest, doesNotStartWithoutBackends)
{
    KesaConfig none("me", "{}");
    none.m_backends.clear();
    KesaRuntimeImpl withoutBackends(std::move(none));
    EXPECT_THAT(traced(4, [&] { EXPECT_TRUE(withoutBackends.start()); }),
                ElementsAre("4 KesaRuntimeImpl::start no backends in config file"));
    EXPECT_THAT(happened(), ElementsAre("runtime error"));
    EXPECT_TRUE(withoutBackends.isRunning());
}

} // namespace
} // namespace kesa::runtime::v02::test
