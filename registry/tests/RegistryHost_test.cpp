// A real runtime hosts the registry over a fake backend: what it provides is shown to other processes, from the
// registry itself to its end.
#include "tests/support.h"

#include <Variable.h>
#include <kesa/registry/RegistryHost.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/MetainfoKeys.h>
#include <runtime/v02/runtime/channels.h>
#include <runtime/v02/runtime/tests/RuntimeFixture.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <unistd.h>

namespace kesa::registry::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

class RegistryHostTest : public runtime::v02::test::RuntimeFixture {
protected:
    static constexpr const char* DOCUMENT =
        R"({"use_registry": true, "service_registry_locators": ["fake://me/registry"]})";

    RegistryHostTest() { tracing::setThreshold("*", 0); } // all lines, and none is asked for: silences count
    void host()
    {
        m_runtime = startRuntime(DOCUMENT);
        m_host = makeHost(*m_runtime, "");
        m_clients.m_asked = &m_host->registry();
    }
    std::unique_ptr<RegistryHost> makeHost(runtime::v02::IRuntimeRegistry& runtime, const std::string& name)
    {
        return std::make_unique<RegistryHost>(
            runtime, [this, name] { m_clients.m_lines->push_back(name + "ready"); },
            [this, name](const Response& error) { m_clients.m_lines->push_back(name + reasonOf(error)); });
    }
    bool isProvided() { return m_network->service("fake://me/registry") != nullptr; }
    /// An error line on the channel that a host silences for the end of its runtime.
    bool isBackendsErrorShown()
    {
        return !traced(4, [] { KESA_TRACE_TEXT(runtime::v02::BACKENDS_CHANNEL, 4, std::string("line")); }).empty();
    }
    ~RegistryHostTest() override { m_host.reset(); }

    std::unique_ptr<RegistryHost> m_host;
    Clients m_clients;
};

/// A configuration document that can be written anew. No runtime is started with it.
class Document {
public:
    Document() { ::setenv("KESA_CONFIG", m_file.c_str(), 1); }
    ~Document()
    {
        ::unsetenv("KESA_CONFIG");
        ::unlink(m_file.c_str());
    }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;
    void write(const std::string& policy) const
    {
        std::ofstream(m_file) << "{\"use_registry\": true, \"registry\": {\n\"policy\": " << policy << "}}";
    }

private:
    const std::string m_file = testing::TempDir() + "policy." + std::to_string(::getpid()) + ".json";
};

TEST_F(RegistryHostTest, WithoutAPolicyEachUserSeesHisOwnAndWhatIsPublic)
{
    host();
    run();
    Process media("media", ""), nav("nav", ""), root("root", "");
    media.context.uid = 1001;
    nav.context.uid = 1002;
    m_clients.told();
    m_clients.query(nav, "n", Query("**"));
    m_clients.track(nav, "t", "/a");
    m_clients.query(root, "r", Query("**"));
    EXPECT_THAT(m_clients.told(), ElementsAre("n: [+/registry]", "n: []", "r: [+/registry]", "r: []"));
    m_clients.registerService(media, "m", test::service("/a"));
    ServiceDef shared = test::service("/b");
    shared.metainfo = GenericObject{{serviceregistry::PUBLIC, true}};
    m_clients.registerService(media, "m", shared);
    EXPECT_THAT(m_clients.told(),
                ElementsAre("m: registered /a", "r: [+/a]", "m: registered /b", "n: [+/b]", "r: [+/b]"));
    EXPECT_EQ(m_clients.explain(nav, "/a")["registered"], false) << "as if it was not there";
    EXPECT_EQ(m_clients.explain(nav, "/a")["taken"], true) << "who may register is told as much by a refusal";
    EXPECT_EQ(m_clients.explain(root, "/a")["registered"], true);
    EXPECT_EQ(m_clients.explain(nav, "/registry")["policy"]["hasRules"], false);
}

TEST_F(RegistryHostTest, AChangedPolicyEndsWhatItNoLongerAllowsAndNothingElse)
{
    host();
    run();
    const Document document;
    Process media("media", ""), nav("nav", "");
    media.context.uid = media.context.pid = 1001;
    nav.context.uid = nav.context.pid = 1002;
    m_clients.told();
    document.write(R"([{"user": [1001, 1002], "may": ["register", "see"], "paths": "/**"}])");
    EXPECT_EQ(m_host->reloadPolicy(), "");
    m_clients.registerService(media, "a", test::service("/a"));
    m_clients.registerService(media, "b", test::service("/b"));
    m_clients.query(nav, "q", Query("**"));
    m_clients.track(nav, "t", "/b");
    EXPECT_THAT(m_clients.told(),
                ElementsAre("a: registered /a", "b: registered /b", "q: [+/a+/b+/registry]", "q: []", "t: +/b"));
    document.write(R"([{"user": 1001, "may": "register", "paths": "/b"},
{"user": 1002, "may": "see", "paths": "/a*"}])");
    EXPECT_EQ(m_host->reloadPolicy(), "");
    EXPECT_THAT(m_clients.told(),
                testing::ElementsAre(testing::AllOf(HasSubstr("a: 403: not allowed to register this service: "),
                                                    HasSubstr("no rule of the policy in "), HasSubstr("1001"),
                                                    HasSubstr(" register \"/a\": rule 1 ("),
                                                    HasSubstr(".json:2) is for other paths")),
                                     "t: -/b", "q: [-/b]", "q: [-/a]", "a: ~"));
    m_clients.registerService(nav, "c", test::service("/c"));
    EXPECT_THAT(m_clients.told(), ElementsAre(HasSubstr("c: 403: not allowed"), "c: ~"));
    document.write(R"([{"user": "nobody of that name", "may": "all"}])");
    EXPECT_THAT(m_host->reloadPolicy(), HasSubstr(".json:2:"));
    EXPECT_THAT(m_clients.told(), testing::IsEmpty()) << "a broken one changes nothing";
    EXPECT_FALSE(m_clients.explain(nav, "/b")["taken"].isDefined()) << "who may not register is not told";
    Process root("root", "");
    const util::config::Value kept = m_clients.explain(root, "/registry")["policy"];
    EXPECT_THAT(kept["text"].toText(), HasSubstr("2 rules of "));
    EXPECT_THAT(kept["failed"]["reason"].toText(), HasSubstr(".json:2:"));
    EXPECT_FALSE(m_clients.explain(nav, "/registry")["policy"]["failed"]["reason"].isDefined());
    document.write(R"([{"may": ["register", "see"], "paths": "**"}])");
    EXPECT_EQ(m_host->reloadPolicy(), "");
    EXPECT_THAT(m_clients.told(), ElementsAre("t: +/b", "q: [+/b]"));
    ::unsetenv("KESA_CONFIG"); // as if the document had been removed from where it was found
    EXPECT_THAT(m_host->reloadPolicy(), HasSubstr(".json, is not read any more: there is none"));
    EXPECT_THAT(m_clients.told(), testing::IsEmpty());
}

TEST_F(RegistryHostTest, AReloadThatWouldTakeTooLongCutsOffWhoAsksForTheMost)
{
    host();
    run();
    const Document document;
    Process media("media", ""), nav("nav", ""), hog("hog", "");
    media.context.uid = media.context.pid = 1001;
    nav.context.uid = nav.context.pid = 1002;
    hog.context.uid = hog.context.pid = 1003;
    document.write(R"([{"user": [1001, 1002, 1003], "may": ["register", "see"], "paths": "/**"}])");
    EXPECT_EQ(m_host->reloadPolicy(), "");
    const auto isRefused = [](const std::string& line) { return line.find(" steps ") != std::string::npos; };
    for (Lines told; std::none_of(told.begin(), told.end(), isRefused); told = m_clients.told()) {
        m_clients.query(hog, "h", Query("/**/*x*y*z*" + std::to_string(hog.policies) + "*/**/*x*y*"));
    }
    constexpr std::size_t SERVICES = 2500; // times what a user may have is more than a reload may take
    for (std::size_t number = 0; number < SERVICES; ++number) {
        m_clients.registerService(media, "m", test::service("/a/" + std::to_string(number)));
    }
    m_clients.track(nav, "n", "/a/8");
    m_clients.told();
    document.write(R"([{"user": 1001, "may": "register", "paths": "/**"},
{"user": [1002, 1003], "may": "see", "paths": "/a/7"}])");
    EXPECT_EQ(m_host->reloadPolicy(), "");
    EXPECT_THAT(hog.peer->disconnected,
                testing::AllOf(HasSubstr("the policy was read again"), HasSubstr("to be held against 2499 services")));
    EXPECT_EQ(nav.peer->disconnected + media.peer->disconnected, "");
    EXPECT_THAT(m_clients.told(), Contains("n: -/a/8"));
}

TEST_F(RegistryHostTest, ShowsWhatItsProcessProvides)
{
    host();
    Process other("other", ""), watcher("watcher", "");
    m_clients.query(watcher, "all", Query("**"));
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("all: []", "all: [+/registry]", "ready"));
    auto own = registerService("/own", "own");
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("all: [+/own]"));
    m_clients.registerService(other, "claim", test::service("/own"));
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("claim: 409: service already registered: held by process me (pid " +
                                                  std::to_string(::getpid()) + ")",
                                              "claim: ~"));

    // A path that another living process holds: the own service waits for it, and says so.
    void* const held = m_clients.registerService(other, "held", test::service("/taken"));
    m_clients.told();
    auto hidden = registerService("/taken", "hidden");
    EXPECT_THAT(traced(4,
                       [&] {
                           run();
                           other.peer->answer(true);
                       }),
                ElementsAre(testing::AllOf(HasSubstr("'/taken'"), HasSubstr("other (process 7)"))));
    EXPECT_TRUE(m_clients.told().empty());
    m_clients.m_asked->cancelRequest(held);
    EXPECT_THAT(m_clients.told(), ElementsAre("all: [-/taken]", "all: [+/taken]", "held: ~"));
    own.dispose();
    hidden.dispose();
    run();
    EXPECT_THAT(m_clients.told(), ElementsAre("all: [-/own]", "all: [-/taken]"));
}

TEST_F(RegistryHostTest, BeginsWhenItsPredecessorHasEnded)
{
    host();
    m_host.reset(); // before it is known whether it was registered
    auto brief = makeHost(*m_runtime, "brief ");
    brief.reset(); // before it has begun
    m_host = makeHost(*m_runtime, "second ");
    auto rival = makeHost(*m_runtime, "rival ");
    run();
    EXPECT_THAT(
        m_clients.told(),
        ElementsAre("second ready", testing::StartsWith("rival 409: this process hosts the registry there already")));
    EXPECT_TRUE(isProvided() && isBackendsErrorShown());
    rival.reset();

    // However often it has begun, one query follows the services, and only the present registry hears of them.
    Process watcher("watcher", "");
    for (int i = 0; i < 3; ++i) {
        m_host->stop();
        EXPECT_FALSE(isBackendsErrorShown());
        m_host = makeHost(*m_runtime, "");
        m_clients.told(); // what the one before had been asked is gone with it
        m_clients.m_asked = &m_host->registry();
        m_clients.query(watcher, "all", Query("**"));
        EXPECT_THAT(traced(4, [] {}), testing::IsEmpty());
        EXPECT_THAT(m_clients.told(), ElementsAre("all: []", "all: [+/registry]", "ready"));
    }
    EXPECT_TRUE(isBackendsErrorShown());
    m_journal->take();
    auto own = registerService("/own", "own");
    Lines lines = happened();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "query update"), 1);
    own.dispose();
}

TEST_F(RegistryHostTest, RefusedOneLeavesTheOtherAlone)
{
    host();
    auto second = makeHost(*m_runtime, "second ");
    run();
    EXPECT_THAT(
        m_clients.told(),
        ElementsAre("ready", testing::HasSubstr(
                                 "second 409: this process hosts the registry there already, and there is one at a "
                                 "time: end the kesa::registry::RegistryHost that is there before")));
    second.reset();
    EXPECT_TRUE(isBackendsErrorShown());
    EXPECT_TRUE(isProvided());
    makeHost(*m_runtime, "third ").reset(); // before the refusal comes
    EXPECT_TRUE(isBackendsErrorShown());
    EXPECT_TRUE(isProvided());
    EXPECT_THAT(m_clients.told(), testing::IsEmpty());
}

TEST_F(RegistryHostTest, RefusesAtOnceWhereTheRegistryIsElsewhere)
{
    using runtime::v02::KesaRuntime;
    const kesa::test::Variable none("KESA_CONFIG_DIR", "/nonexistent");
    EXPECT_FALSE(KesaRuntime::initInstance("other", DOCUMENT));
    makeHost(*KesaRuntime::getInstance(), "").reset();
    EXPECT_THAT(m_clients.told(),
                ElementsAre(testing::StartsWith(
                    "409: this process, \"other\", does not host the registry: of \"service_registry_locators\" for "
                    "its partition, \"local\", which are fake://me/registry, one has to be")));
    EXPECT_TRUE(isBackendsErrorShown());
    EXPECT_THAT(m_clients.told(), testing::IsEmpty());
    KesaRuntime::shutdown();
}

} // namespace
} // namespace kesa::registry::test
