// A registry in another process, and in this one: answers that the simulation does not draw, or too seldom. Everything
// else about it is in scenarios and in the simulation.
#include "RuntimeFixture.h"

#include <ScriptedRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPexService.h>
#include <runtime/v02/runtime/RemoteRegistryHandler.h>
#include <tracing/CapturingSink.h>

namespace kesa::runtime::v02::test {
namespace {

using enum RegistryUpdate::UpdateTypeEnum;
using Pex = serviceregistry::ServiceRegistryPexService;

constexpr const char* REGISTRY = "fake://registry/registry";
constexpr const char* DOCUMENT =
    R"({"use_registry": true, "service_registry_locators": ["other://elsewhere/registry", "fake://registry/registry"]})";

ServiceDef foreign(const std::string& path)
{
    ServiceDef service(Path(path), ServiceDef::TypeEnum::pex, {}, {url("fake://other" + path)});
    service.metainfo = GenericObject{{"provider", "other"}};
    return service;
}

RegistryUpdate update(RegistryUpdate::UpdateTypeEnum type, const ServiceDef& service)
{
    return {type, std::make_shared<ServiceDef>(service)};
}

RegistryUpdate update(RegistryUpdate::UpdateTypeEnum type, const std::string& path)
{
    return update(type, foreign(path));
}

class RemoteRegistryTest : public RuntimeFixture {
protected:
    RemoteRegistryTest()
    {
        auto owned = std::make_unique<kesa::test::ScriptedRegistry>(calls);
        registry = owned.get();
        m_pex = std::make_shared<Pex>(std::move(owned));
        m_network->provided.emplace(REGISTRY, Pex::getService(m_pex).get());
    }
    ~RemoteRegistryTest() override
    {
        Pex::getService(m_pex)->endOutstandingRequests(); // as a backend does before it lets go of a runtime
        m_runtime.reset();
    }

    void startConnected()
    {
        m_runtime = startRuntime(DOCUMENT);
        connect();
        calls.clear();
    }
    void connect()
    {
        m_network->connected(REGISTRY);
        run();
    }
    Lines asked()
    {
        run();
        return std::exchange(calls, {});
    }
    Lines calls; ///< of the registry
    kesa::test::ScriptedRegistry* registry;

private:
    std::shared_ptr<Pex> m_pex;
};

TEST_F(RemoteRegistryTest, whatIsProvidedIsWithdrawnWhateverTheRegistryHasRecorded)
{
    startConnected();
    auto registration = registerService("/a", "r");
    EXPECT_THAT(happened(), ElementsAre("registration register", "r: /a fake://me/a"));
    ServiceDef recorded = registry->lastRecord;
    EXPECT_EQ(recorded.locators, std::vector<url>{url("fake://me/a")});
    recorded.locators = {url("fake://elsewhere/a")};
    registry->registration("/a").onNext(recorded);
    EXPECT_THAT(happened(), ElementsAre("registration success"));
    registry->registration("/a").onNext(recorded);
    EXPECT_THAT(traced(2, [] {}), Contains(HasSubstr("do not update ServiceDef")));
    EXPECT_THAT(traced(3, [&] { registration.dispose(); }), IsEmpty());
    EXPECT_FALSE(m_network->isProvided("fake://me/a"));
}

TEST_F(RemoteRegistryTest, answersToAnEarlierRequestDoNotCount)
{
    startConnected();
    auto tracker = track("/a", "t");
    run();
    registry->tracking("/a").onNext(update(ADDED, "/a")); // on its way while the registration is made
    auto registration = registerService("/a", "r");
    EXPECT_THAT(toClients(), Contains("r: 409: service already registered: held by process other"));
    registry->tracking("/a").onNext(update(REMOVED, "/a"));
    run();
    m_journal->take();
    auto third = registerService("/a", "r3");
    run();
    third.dispose();
    auto fourth = registerService("/a", "r4"); // answers to the third are behind it in the queue
    registry->registration("/a").onNext(registry->lastRecord);
    registry->registration("/a").onError(Response::createErrorResponse(409));
    m_journal->take();
    const Lines lines = happened();
    EXPECT_THAT(lines, Not(Contains("registration success")));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("r4: 4"))));
    EXPECT_TRUE(m_network->isProvided("fake://me/a"));
    auto keeping = track("/a", "u"); // keeps the entry
    fourth.dispose();
    registry->registration("/a").onError(Response::createErrorResponse(409));
    EXPECT_THAT(traced(1, [] {}), Contains(HasSubstr("[onRegistrationFailed] of an earlier request")));
}

TEST_F(RemoteRegistryTest, aConfirmationAfterTheEndIsNoWarning)
{
    startConnected();
    const auto confirmedLate = [this] {
        auto registration = registerService("/a", "r");
        run();
        registration.dispose();
        registry->registration("/a").onNext(registry->lastRecord);
    };
    EXPECT_THAT(traced(3, confirmedLate),
                AllOf(Contains(HasSubstr("registration was cancelled before announce")),
                      Contains(HasSubstr("'/a' has ended after 0 ms, before a registry had answered it: keep what"))));
    auto tracking = track("/a", "t");
    run();
    Lines lines = traced(2, confirmedLate);
    EXPECT_THAT(lines, Contains("2 [registerService RemoteRegistryHandler] service service='/a' is already "
                                "unregistered"));
    EXPECT_THAT(traced(3, confirmedLate), IsEmpty());
    tracking.dispose();
    run();
}

// The connection is lost and there again before the executor has heard of the loss: what it issues meanwhile goes over
// the new connection, and once more when it hears of that.
TEST_F(RemoteRegistryTest, aRequestIsOpenOnceThoughTheNewsOfTheConnectionAreLate)
{
    startConnected();
    auto registration = registerService("/a", "r");
    auto tracker = track("/b", "t");
    auto subscription = query("/c/*", "q");
    registry->loseAll();
    m_network->disconnected(REGISTRY);
    m_network->connected(REGISTRY);
    while (calls.size() < 3) {
        ASSERT_TRUE(scheduler.step());
    }
    ASSERT_THAT(std::exchange(calls, {}), ElementsAre("register /a", "track /b", "query /c/*"));
    // Answers to these are behind the news in the queue.
    registry->tracking("/b").onNext(update(ADDED, "/b"));
    registry->query("/c/*").onNext({update(ADDED, "/c/1")});
    registry->registration("/a").onError(Response::createErrorResponse(409));
    EXPECT_THAT(toClients(), ElementsAre("r: /a fake://me/a"));
    EXPECT_THAT(asked(), ElementsAre("cancel track /b", "cancel query /c/*", "register /a", "track /b", "query /c/*"))
        << "what has ended has nothing to cancel";
    registration.dispose();
    tracker.dispose();
    subscription.dispose();
    EXPECT_THAT(asked(), ElementsAre("cancel register /a", "cancel track /b", "cancel query /c/*"));
}

TEST_F(RemoteRegistryTest, trackersHearOfOthersWhenTheOwnRegistrationEnds)
{
    startConnected();
    auto tracker = track("/a", "t");
    auto registration = registerService("/a", "r");
    EXPECT_THAT(asked(), ElementsAre("track /a", "cancel track /a", "register /a"));
    registration.dispose();
    EXPECT_THAT(asked(), ElementsAre("cancel register /a", "track /a"));
    m_network->refusedPaths.insert("/a");
    auto refused = registerService("/a", "r2");
    EXPECT_THAT(asked(), ElementsAre("cancel track /a", "track /a"));

    // A tracker that comes while the path is registered is followed at the registry, too; what that has told by then
    // is not told again unless it is asked anew.
    m_network->refusedPaths.clear();
    auto second = registerService("/a", "r3");
    auto late = track("/a", "u");
    run();
    registry->tracking("/a").onNext(update(ADDED, "/a"));
    run();
    calls.clear();
    m_journal->take();
    m_network->calls();
    registry->registration("/a").onError(Response::createErrorResponse(409));
    EXPECT_THAT(asked(), ElementsAre("cancel track /a", "track /a"));
    EXPECT_THAT(m_network->calls(), ElementsAre("unprovide fake://me/a")) << "the own record is still the own one";
    registry->tracking("/a").onNext(update(ADDED, "/a"));
    EXPECT_THAT(toClients(), testing::IsSupersetOf({"t: REMOVED /a", "u: REMOVED /a", "t: ADDED /a", "u: ADDED /a"}));
}

TEST_F(RemoteRegistryTest, aShutdownIsNoErrorOfEachService)
{
    startConnected();
    auto registration = registerService("/a", "r");
    run();
    m_network->onRelease = [this] { registry->loseAll(); };
    EXPECT_THAT(traced(4, [&] { m_runtime.reset(); }), IsEmpty());
    m_network->onRelease = {};
}

TEST_F(RemoteRegistryTest, aQueryKeepsUpWithTheTrackingOfItsPaths)
{
    startConnected();
    // Told by a tracking that ends before the query's own first answer: taken back, and brought again by that answer.
    auto subscription = query("**", "q");
    auto tracker = track("/a", "t");
    run();
    registry->tracking("/a").onNext(update(ADDED, "/a"));
    run();
    tracker.dispose();
    EXPECT_THAT(toClients(), ElementsAre("t: ADDED /a", "q: ADDED /a", "t: ~", "q: REMOVED /a"));
    registry->query("**").onNext({update(ADDED, "/a")});
    registry->query("**").onNext({});
    EXPECT_THAT(toClients(), ElementsAre("q: ADDED /a"));

    // A query that ends before the tracking of its path has answered: nobody knows until then.
    run();
    auto doubting = track("/a", "d");
    subscription.dispose();
    EXPECT_THAT(toClients(), ElementsAre("d: ADDED /a", "q: ~", "d: REMOVED /a"));
    registry->tracking("/a").onNext(update(ADDED, "/a"));
    EXPECT_THAT(toClients(), ElementsAre("d: ADDED /a"));
    doubting.dispose();

    // A tracking that answers with another registration than the query had told of: the old one went.
    subscription = query("**", "q");
    run();
    registry->query("**").onNext({update(ADDED, "/a")});
    auto successor = track("/a", "s");
    run();
    m_journal->take();
    ServiceDef other = foreign("/a");
    other.id = obr::UUID({2});
    other.locators = {url("fake://third/a")};
    registry->tracking("/a").onNext(update(ADDED, other));
    EXPECT_THAT(toClients(), ElementsAre("s: REMOVED /a", "q: REMOVED /a", "s: ADDED /a", "q: ADDED /a"));
    // Another record of the same one, whole this time: it takes the place of the known one, and nobody hears of it.
    other.versions = {"2.0.0"};
    other.metainfo->set("zone", "kitchen");
    registry->tracking("/a").onNext(update(ADDED, other));
    EXPECT_THAT(toClients(), IsEmpty());
    ServiceDef told;
    auto reader = m_runtime->trackService("/a", std::make_unique<responsehandlers::FuncResponseHandler<ServiceUpdate>>(
                                                    [&told](const ServiceUpdate& added) {
                                                        told = added.element;
                                                        return false;
                                                    },
                                                    [](const Response&) {}, [] {}));
    run();
    EXPECT_EQ(told, other);

    // The record of an entry that only waits for its tracking is the query's: it stays when the tracker goes.
    auto second = track("/b", "u");
    run();
    registry->query("**").onNext({update(ADDED, "/b")});
    run();
    second.dispose();
    run();
    registry->query("**").onNext({update(REMOVED, "/b")});
    EXPECT_THAT(toClients(), testing::IsSupersetOf({"q: ADDED /b", "q: REMOVED /b"}));
}

TEST_F(RemoteRegistryTest, anOwnServiceIsKnownWithoutItsMetainfo)
{
    startConnected();
    auto subscription = query("**", "q");
    auto registration = registerService("/a", "r");
    run();
    ServiceDef own = registry->lastRecord;
    own.metainfo.reset();
    ServiceDef recorded = own; // by a registry that puts itself between
    recorded.id = obr::UUID({1});
    recorded.locators = {url("fake://gateway/a")};
    registry->query("**").onNext({update(ADDED, own)});
    registry->registration("/a").onNext(recorded);
    registry->query("**").onNext({update(ADDED, recorded)});
    run();
    m_journal->take();
    registration.dispose();
    EXPECT_THAT(toClients(), ElementsAre("r: ~", "q: REMOVED /a"));
    registry->query("**").onNext({update(ADDED, own), update(REMOVED, own)}); // was on its way
    EXPECT_THAT(toClients(), IsEmpty());
}

TEST_F(RemoteRegistryTest, theHostRegistersTheRegistryFirst)
{
    m_runtime = startRuntime(R"({"use_registry": true, "service_registry_locators": ["fake://me/registry"]})");
    auto early = track("/a", "t");
    Disposable wrong;
    EXPECT_THAT(traced(4, [&] { wrong = registerService("/a", "r"); }),
                testing::Contains(testing::HasSubstr("make a kesa::registry::RegistryHost before anything else")));
    EXPECT_THAT(toClients(),
                ElementsAre("t: 409: kesa runtime in registry you must register first the registry service", "t: ~",
                            "r: 409: kesa runtime in registry, registry service must registered first", "r: ~"));
    EXPECT_THAT(
        m_assertions.take(),
        ElementsAre("false, registerRegistryService, [registerRegistryService] kesa runtime in registry, registry "
                    "service must be registered first"));

    auto registration = registerService("/registry", "registry", ServiceDef::TypeEnum::registry);
    EXPECT_THAT(happened(),
                ElementsAre("registration register", "registry: /registry fake://me/registry", "registration success"));
    auto tracker = track("/registry", "t");
    auto all = query("**", "q");
    auto other = registerService("/a", "a");
    EXPECT_THAT(toClients(),
                ElementsAre("t: ADDED /registry", "q: ADDED /registry", "a: /a fake://me/a", "q: ADDED /a"));
    other.dispose();
    registration.dispose();
    EXPECT_THAT(toClients(), testing::IsSupersetOf({"t: REMOVED /registry", "q: REMOVED /registry"}));
    auto again = registerService("/registry", "registry2", ServiceDef::TypeEnum::registry);
    EXPECT_THAT(toClients(),
                ElementsAre("registry2: /registry fake://me/registry", "t: ADDED /registry", "q: ADDED /registry"));
    again.dispose();
    run();
    m_network->refusedPaths.insert("fake://me/registry");
    m_journal->take();
    auto failing = registerService("/registry", "registry3", ServiceDef::TypeEnum::registry);
    EXPECT_THAT(happened(), ElementsAre("registration register", "registration error",
                                        "registry3: 409: the fake refuses it", "registry3: ~"));
    EXPECT_THAT(m_assertions.take(), ElementsAre(HasSubstr("registry service can not be registed")));
}

TEST_F(RemoteRegistryTest, aRuntimeThatFindsNoRegistryDoesNotStart)
{
    const ::tracing::TraceCapture faults("KESA_UTIL_CONFIG");
    const auto start = [this](const char* document) {
        KesaRuntimeImpl runtime(KesaConfig("me", document));
        EXPECT_TRUE(runtime.start());
        return m_assertions.take();
    };
    EXPECT_THAT(start(R"({"use_registry": true})"), ElementsAre(HasSubstr("found no partition for kesa registry")));
    EXPECT_THAT(faults.take(), ElementsAre(HasSubstr("runtime: \"use_registry\" asks for a registry, and "
                                                     "\"service_registry_locators\" has none for the partition of this "
                                                     "process, 'local'; write {")));
    EXPECT_THAT(start(R"({"use_registry": true, "service_registry_locators": ["other://a/registry"]})"),
                ElementsAre(HasSubstr("Found no resolvable registry locator in config")));
    EXPECT_THAT(faults.take(), ElementsAre(HasSubstr("none of other://a/registry can be reached")));
    start(R"({"use_registry": true, "backends": ["local"], "service_registry_locators": ["fake://a/registry"]})");
    EXPECT_THAT(faults.take(), ElementsAre(HasSubstr("none of \"backends\" reaches one; write [\"comm\"]")));
}

} // namespace
} // namespace kesa::runtime::v02::test
