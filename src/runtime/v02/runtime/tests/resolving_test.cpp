// Client objects for locators, paths and queries: what the event log says, the errors of a backend, and answers that
// are too late. Whatever else overtakes what, that clients believe the truth, is for the simulation.
#include "RuntimeFixture.h"

namespace kesa::runtime::v02::test {
namespace {

class ResolvingTest : public RuntimeFixture {};

TEST_F(ResolvingTest, aLocatorIsConnectedAndReleased)
{
    m_runtime = startRuntime();
    ServiceDef service(Path("/s"), ServiceDef::TypeEnum::pex, {}, {url("other://x/s"), url("fake://x/s")});
    auto a = m_runtime->resolveService(service, handler<ProxyState>("a"));
    EXPECT_THAT(happened(), ElementsAre("connect start"));
    m_network->connected("fake://x/s");
    EXPECT_THAT(happened(), ElementsAre("connect serviceConnected", "a: connected"));
    auto b = resolve("fake://x/s", "b"); // shares the proxy, so it is connected before it starts
    EXPECT_THAT(happened(), ElementsAre("connect serviceConnected", "b: connected", "connect start"));
    m_network->disconnected("fake://x/s");
    EXPECT_THAT(happened(), ElementsAre("connect serviceLost", "a: lost", "connect serviceLost", "b: lost"));
    a.dispose();
    EXPECT_THAT(happened(), ElementsAre("a: ~", "connect stop"));
    m_network->failed("fake://x/s", 500, "x");
    EXPECT_THAT(happened(), ElementsAre("connect error", "b: 500: x"));
    b.dispose();
    EXPECT_THAT(happened(), ElementsAre("b: ~", "connect stop"));
    EXPECT_THAT(m_network->calls(), ElementsAre("connect fake://x/s", "release fake://x/s"));
}

TEST_F(ResolvingTest, aServiceThatGoesIsReleasedAsRemoved)
{
    m_runtime = startRuntime();
    m_network->isAutomatic = true;
    auto following = follow("/a", "f");
    auto registration = registerService("/a", "r");
    EXPECT_THAT(toClients(), ElementsAre("r: /a fake://me/a", "f: present /a"));
    m_network->calls();
    registration.dispose();
    EXPECT_THAT(toClients(), ElementsAre("r: ~", "f: absent"));
    EXPECT_THAT(m_network->calls(), ElementsAre("unprovide fake://me/a", "release fake://me/a removed"));
}

TEST_F(ResolvingTest, aFollowedServiceThatCannotBeReachedEndsTheSubscription)
{
    m_runtime = startRuntime(R"({"use_local_registry": true, "services": [
        {"path": "/s", "type": "pex", "locators": ["other://x/s", "fake://x/s"]},
        {"path": "/u", "type": "pex", "locators": ["other://x/u"]}]})");
    auto none = follow("/u", "none"); // no backend handles its locators: ends the client's side
    EXPECT_THAT(toClients(), ElementsAre(HasSubstr("none: 404: no backend of this process reaches"), "none: ~"));
    EXPECT_EQ(traced(4, [&] { none.dispose(); }).size(), 2U); // neither a proxy nor a client is left, the tracking was

    m_network->refusedLocators = {"fake://x/s"};
    auto refused = follow("/s", "refused"); // handled, but there is no client object: ends all of it
    EXPECT_THAT(toClients(), ElementsAre(HasSubstr("refused: 404: no backend of this process reaches"), "refused: ~"));
    EXPECT_EQ(traced(4, [&] { refused.dispose(); }).size(), 3U);

    m_network->refusedLocators.clear();
    auto broken = follow("/s", "broken");
    run();
    m_network->failed("fake://x/s", 500, "broken");
    EXPECT_THAT(toClients(), ElementsAre("broken: 500: broken", "broken: ~"));
    EXPECT_EQ(m_network->openClients(), 0U);
}

} // namespace
} // namespace kesa::runtime::v02::test
