// Client objects for locators, paths and queries: shared proxies, and answers that come too late.
#include "RuntimeFixture.h"

namespace kesa::runtime::v02::test {
namespace {

class ResolvingTest : public RuntimeFixture {
protected:
    Disposable resolve(const std::string& locator, const std::string& name)
    {
        return m_runtime->resolveService(url(locator), handler<ProxyState>(name));
    }
    Disposable follow(const std::string& path, const std::string& name)
    {
        return m_runtime->trackAndResolveService(path, handler<optional<ResolvedService>>(name));
    }
    Disposable followAll(const std::string& pattern, const std::string& name)
    {
        return m_runtime->trackAndResolveServices(Query(pattern), handler<ResolvedServiceState>(name));
    }
    /// The calls to clients only.
    Lines toClients()
    {
        Lines lines = happened();
        lines.erase(std::remove_if(lines.begin(), lines.end(),
                                   [](const std::string& line) { return line.find(": ") == std::string::npos; }),
                    lines.end());
        return lines;
    }
    /// Runs one event at a time until `done` holds.
    void runUntil(const std::function<bool()>& done)
    {
        while (!done() && m_scheduler.step()) {
        }
        ASSERT_TRUE(done());
    }
};

/// A static service of another process: there from the start, and its proxy answers when the test says so.
constexpr const char* REMOTE = R"({"use_local_registry": true, "services": [
    {"path": "/s", "type": "pex", "locators": ["other://x/s", "fake://x/s"]},
    {"path": "/t", "type": "pex", "locators": ["fake://x/t"]},
    {"path": "/u", "type": "pex", "locators": ["other://x/u"]}]})";

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
    EXPECT_THAT(happened(), ElementsAre("a: gone", "connect stop"));
    m_network->failed("fake://x/s", 500, "x");
    EXPECT_THAT(happened(), ElementsAre("connect error", "b: error 500: x"));
    b.dispose();
    EXPECT_THAT(happened(), ElementsAre("b: gone", "connect stop"));
    EXPECT_THAT(m_network->calls(), ElementsAre("connect fake://x/s", "release fake://x/s"));
}

TEST_F(ResolvingTest, aLocatorNobodyReachesIsRefusedOnceAndKillsNoStranger)
{
    m_runtime = startRuntime();
    auto unknown = resolve("other://x/s", "unknown");
    EXPECT_THAT(happened(), ElementsAre("unknown: error 404", "unknown: gone"));
    EXPECT_THAT(traced(4, [&] { unknown.dispose(); }),
                ElementsAre(HasSubstr("[releaseResolve] url to release not found handle=")));

    m_network->refusedLocators = {"fake://x/s"};
    auto refused = resolve("fake://x/s", "refused");
    EXPECT_THAT(happened(), ElementsAre("connect error", "refused: error 404", "refused: gone", "connect start"));
    m_network->refusedLocators.clear();
    auto stranger = resolve("fake://x/s", "stranger");
    run();
    EXPECT_THAT(traced(4, [&] { refused.dispose(); }),
                ElementsAre(HasSubstr("[releaseResolve] url to release not found handle=")));
    m_network->connected("fake://x/s");
    EXPECT_THAT(toClients(), ElementsAre("stranger: connected"));
    stranger.dispose();
}

TEST_F(ResolvingTest, theErrorOfARefusedProxyKillsNoStranger)
{
    for (const bool byQuery : {false, true}) {
        m_runtime = startRuntime(REMOTE);
        Disposable refused;
        Disposable owner;
        if (byQuery) {
            owner = registerService("/a", "r");
            refused = followAll("/a", "refused");
        } else {
            refused = follow("/s", "refused");
        }
        const std::string locator = byQuery ? "fake://me/a" : "fake://x/s";
        m_network->refusedLocators = {locator};
        runUntil([&] { return m_traces->contains("-> notifying client") || m_traces->contains("by other process"); });
        auto stranger = resolve(locator, "stranger"); // behind the update, before the error it ends in
        runUntil([&] { return m_traces->contains("onNext of tracking]"); });
        m_network->refusedLocators.clear();
        EXPECT_THAT(toClients(), Contains("refused: error 404"));
        m_network->connected(locator);
        EXPECT_THAT(toClients(), ElementsAre("stranger: connected"));
        m_runtime.reset();
    }
}

TEST_F(ResolvingTest, aFollowedServiceIsPresentAndAbsentInTurn)
{
    m_runtime = startRuntime();
    m_network->isAutomatic = true;
    auto following = follow("/a", "f");
    auto registration = registerService("/a", "r");
    EXPECT_THAT(toClients(), ElementsAre("r: /a fake://me/a", "f: present /a"));
    m_network->disconnected("fake://me/a");
    m_network->connected("fake://me/a");
    EXPECT_THAT(toClients(), ElementsAre("f: absent", "f: present /a"));
    m_network->calls();
    registration.dispose();
    EXPECT_THAT(toClients(), ElementsAre("r: gone", "f: absent"));
    EXPECT_THAT(m_network->calls(), ElementsAre("unprovide fake://me/a", "release fake://me/a removed"));

    // Gone before it was connected: there is nothing to tell.
    m_network->isAutomatic = false;
    auto again = registerService("/a", "r");
    run();
    again.dispose();
    EXPECT_THAT(toClients(), ElementsAre("r: /a fake://me/a", "r: gone"));
    following.dispose();
    EXPECT_THAT(toClients(), ElementsAre("f: gone"));
    EXPECT_EQ(m_network->openClients(), 0U);
}

TEST_F(ResolvingTest, anAnswerThatComesAfterTheRemovalIsDropped)
{
    m_runtime = startRuntime();
    auto following = follow("/a", "f");
    auto all = followAll("**", "q");
    // An answer goes through the executor twice, a removal through the updater: each may overtake the other.
    for (int round = 0; round < 300; ++round) {
        m_network->isAutomatic = false;
        auto registration = registerService("/a", "r");
        run();
        m_journal->take();
        registration.dispose();
        for (std::uint64_t steps = m_scheduler.draw(6); steps > 0; --steps) {
            m_scheduler.step();
        }
        m_network->connected("fake://me/a");
        const Lines lines = toClients();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "f: present /a"),
                  std::count(lines.begin(), lines.end(), "f: absent"));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "q: present /a"),
                  std::count(lines.begin(), lines.end(), "q: absent /a"));
        m_network->isAutomatic = true;
        auto again = registerService("/a", "r");
        EXPECT_THAT(toClients(), ElementsAre("r: /a fake://me/a", "f: present /a", "q: present /a"));
        again.dispose();
        run();
    }
    EXPECT_TRUE(m_traces->contains("[trackAndResolveService onNext of resolve] proxy is gone"));
    EXPECT_TRUE(m_traces->contains("[trackAndResolveServices onNext of resolve] proxy is gone"));
}

TEST_F(ResolvingTest, anUpdateThatComesAfterTheEndOpensNoProxy)
{
    m_runtime = startRuntime();
    auto following = follow("/a", "f");
    auto all = followAll("**", "q");
    run();
    auto registration = registerService("/a", "r");
    runUntil([&] { return m_traces->contains("[trackServices] mapped_chainer_response_handler"); });
    following.dispose();
    all.dispose();
    run();
    EXPECT_EQ(m_network->openClients(), 0U);
    registration.dispose();
    EXPECT_THAT(traced(4, [&] { m_runtime.reset(); }), IsEmpty());
}

TEST_F(ResolvingTest, aFollowedServiceThatCannotBeReachedEndsTheSubscription)
{
    m_runtime = startRuntime(REMOTE);
    auto none = follow("/u", "none"); // no backend handles its locators: ends the client's side
    EXPECT_THAT(toClients(), ElementsAre("none: error 404", "none: gone"));
    const Lines errors = traced(4, [&] { none.dispose(); });
    EXPECT_EQ(errors.size(), 2U); // neither a proxy nor a client is left, the tracking was

    m_network->refusedLocators = {"fake://x/s"};
    auto refused = follow("/s", "refused"); // handled, but there is no client object: ends all of it
    EXPECT_THAT(toClients(), ElementsAre("refused: error 404", "refused: gone"));
    m_network->refusedLocators.clear();
    auto stranger = follow("/s", "stranger");
    run();
    EXPECT_EQ(traced(4, [&] { refused.dispose(); }).size(), 3U);
    m_network->connected("fake://x/s");
    EXPECT_THAT(toClients(), ElementsAre("stranger: present /s"));

    m_network->failed("fake://x/s", 500, "broken");
    EXPECT_THAT(toClients(), ElementsAre("stranger: error 500: broken", "stranger: gone"));
    EXPECT_EQ(m_network->openClients(), 0U);
    stranger.dispose();
}

TEST_F(ResolvingTest, aRefusedSubscriptionsAddressIsNobodyElses)
{
    m_runtime = startRuntime(REMOTE);
    for (int i = 0; i < 10; ++i) { // the freed handler's address comes back at once, as a rule
        auto refused = follow("/u", "refused");
        auto unresolved = resolve("other://x/s", "unresolved");
        run();
        auto good = follow("/t", "good");
        auto resolved = resolve("fake://x/t", "resolved");
        run();
        refused.dispose();
        unresolved.dispose();
        run();
        m_journal->take();
        m_network->connected("fake://x/t");
        EXPECT_THAT(toClients(), UnorderedElementsAre("good: present /t", "resolved: connected"));
        good.dispose();
        resolved.dispose();
        run();
    }
    EXPECT_EQ(m_network->openClients(), 0U);
}

TEST_F(ResolvingTest, aQueryIsFollowedServiceByService)
{
    m_runtime = startRuntime();
    m_network->isAutomatic = true;
    auto a = provide("/a");
    auto all = followAll("**", "q");
    auto b = registerService("/b", "r");
    EXPECT_THAT(toClients(), UnorderedElementsAre("q: present /a", "q: present /b", "r: /b fake://me/b"));
    a.dispose();
    EXPECT_THAT(toClients(), ElementsAre("service: gone", "q: absent /a"));
    auto again = registerService("/a", "r");
    EXPECT_THAT(toClients(), ElementsAre("r: /a fake://me/a", "q: present /a"));

    // One proxy that fails ends it all: every proxy is freed.
    m_network->failed("fake://me/a", 500, "broken");
    EXPECT_THAT(toClients(), ElementsAre("q: error 500: broken", "q: gone"));
    EXPECT_EQ(m_network->openClients(), 0U);
    EXPECT_EQ(traced(4, [&] { all.dispose(); }).size(), 3U);

    // One that cannot be opened does, too; one that was never there ends nobody else's.
    m_network->refusedLocators = {"fake://me/b"};
    auto refused = followAll("**", "x");
    EXPECT_THAT(toClients(), Contains("x: error 404"));
    EXPECT_EQ(m_network->openClients(), 0U);
    m_network->refusedLocators.clear();
    auto other = followAll("/b", "other");
    run();
    refused.dispose();
    EXPECT_THAT(toClients(), ElementsAre("other: present /b"));
    other.dispose();
    run();
    EXPECT_EQ(m_network->openClients(), 0U);
}

} // namespace
} // namespace kesa::runtime::v02::test
