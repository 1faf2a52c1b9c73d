// What clients of the registry are told, in which order, by one registry and processes whose signs of life and queues
// are in the test's hand.
#include "tests/support.h"

#include "service/limits.h"

#include <kesa/IKesaApi.h>

#include <gmock/gmock.h>

#include <unistd.h>

#include <string>
#include <thread>

namespace kesa::registry::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class RegistryTest : public testing::Test, protected Clients {
protected:
    RegistryTest() { m_asked = m_registry.get(); }

    std::unique_ptr<Registry> m_registry = std::make_unique<Registry>();
};

TEST_F(RegistryTest, AChangedRecordIsGoneForEverybodyBeforeItIsThereAgainForAnybody)
{
    Process provider("provider"), watcher("watcher");
    track(watcher, "one", "/a");
    query(watcher, "all", Query("**"));
    optional<obr::UUID> id;
    const auto keepId = [&](const ServiceDef& recorded) { id = recorded.id; };
    registerService(provider, "r1", service("/a"), keepId);
    EXPECT_THAT(told(), ElementsAre("all: []", "r1: registered /a", "one: +/a", "all: [+/a]"));
    // The same process, the same record: nobody hears of it, and the id stays.
    registerService(provider, "r2", service("/a"), [&](const ServiceDef& recorded) { EXPECT_EQ(recorded.id, id); });
    EXPECT_THAT(told(), ElementsAre("r2: registered /a"));
    registerService(provider, "r3", service("/a", "ipc://p/other"));
    EXPECT_THAT(told(), ElementsAre("r3: registered /a", "one: -/a", "all: [-/a]", "one: +/a", "all: [+/a]"));
    EXPECT_EQ(watcher.policies, 2);
}

TEST_F(RegistryTest, ARecordSaysByTheKernelsWordWhoHasRegisteredIt)
{
    Process provider("a b");
    provider.context.uid = 1001;
    provider.context.gid = 1002;
    const auto metainfoOf = [&](const std::string& path, const GenericObject& said) {
        ServiceDef record = service(path, "ipc://a%20b+here/s");
        record.metainfo = said;
        std::string metainfo;
        registerService(provider, "r", record, [&](const ServiceDef& recorded) {
            metainfo = util::config::Value(*recorded.metainfo).toText();
        });
        return metainfo;
    };
    EXPECT_EQ(metainfoOf("/a", {{"provider", "liar"}, {"provider_uid", 0}, {"provider_unproven", true}, {"x", 1}}),
              R"({"provider":"a b","provider_gid":1002,"provider_uid":1001,"x":1})");
    provider.peer->name.proof = IPeer::Name::Proof::eUNPROVEN;
    EXPECT_EQ(metainfoOf("/b", {}),
              R"({"provider":"a b","provider_gid":1002,"provider_uid":1001,"provider_unproven":true})");
    told();
    registerService(provider, "r", service("/c", "ipc://other/s"));
    EXPECT_THAT(
        told(),
        ElementsAre(HasSubstr("400: the locator \"ipc://other/s\" names another process than \"a b\", "), "r: ~"));
    // One that leads nowhere would end the subscriptions of others whose queries it fits.
    for (const char* const nowhere : {"tcp://p:1/s", "ipc://p/", "ipc://p/s?q", ""}) {
        ServiceDef record = service("/c", nowhere);
        record.locators.resize(*nowhere == 0 ? 0 : 1);
        registerService(provider, "r", record);
        EXPECT_THAT(told(), ElementsAre(HasSubstr("400: the record has no locator that leads to \"a b\" in this realm; "
                                                  "name one, as \"ipc://a%20b+here/c\""),
                                        "r: ~"))
            << nowhere;
    }
    registerService(provider, "r", service("/c", "ipc://a%20b+there/s"));
    EXPECT_THAT(told(), ElementsAre(AllOf(HasSubstr("400: the locators of \"/c\" are of the realm \"there\", and this "
                                                    "registry is of \"here\""),
                                          HasSubstr("restart this process")),
                                    "r: ~"));
    provider.peer->name = {IPeer::Name::Proof::eDISPROVEN, 812};
    registerService(provider, "r", service("/c", "ipc://a%20b/s"));
    EXPECT_THAT(told(),
                ElementsAre(HasSubstr("409: process 7 calls itself \"a b\", but process 812 has that name; "), "r: ~"));
}

TEST_F(RegistryTest, ThisProcessNeedsNoProof)
{
    m_registry->registerService(noting<ServiceDef>(m_lines, "own"), Path("/a"), service("/a"));
    Process other("other");
    other.context.instance = obr::UUID(); // no peer is this process, whatever it says
    registerService(other, "c", service("/a"));
    EXPECT_THAT(told(), ElementsAre("own: registered /a",
                                    "c: 409: service already registered: held by process p (pid " +
                                        std::to_string(::getpid()) + ')',
                                    "c: ~"))
        << "as its locator names it, since its record does not";
}

// The instance is in every hello that a process says, so anybody may repeat it.
TEST_F(RegistryTest, WhoRepeatsTheInstanceOfAnotherIsNotTakenForIt)
{
    Process holder("holder");
    holder.context.uid = 1000;
    holder.context.start = 100;
    registerService(holder, "h", service("/a"));
    const auto claim = [&](std::int64_t uid, std::int64_t pid, std::uint64_t start) {
        Process other("holder");
        other.context.instance = holder.context.instance;
        other.context.uid = uid;
        other.context.pid = pid;
        other.context.start = start;
        told();
        void* const handle = registerService(other, "c", service("/a"));
        const bool isSame = holder.peer->questions.empty();
        isSame ? m_registry->cancelRequest(handle) : holder.peer->answer(true);
        EXPECT_THAT(told(), Contains(HasSubstr(isSame ? "c: registered /a" : "c: 409: service already registered")));
        return isSame;
    };
    EXPECT_TRUE(claim(1000, 7, 100));
    EXPECT_FALSE(claim(1001, 7, 100));
    EXPECT_FALSE(claim(1000, 8, 100));
    EXPECT_FALSE(claim(1000, 7, 101)) << "the number of one that has ended";
    EXPECT_FALSE(claim(1000, -1, 0));

    Process hidden("hidden"); // in a namespace of processes that this one does not see
    hidden.context.pid = 0;
    registerService(hidden, "h", service("/b"));
    hidden.reconnect();
    hidden.context.start = 5;
    registerService(hidden, "again", service("/b"));
    EXPECT_THAT(told(), Contains("again: registered /b")) << "what is unknown of both decides nothing";
}

TEST_F(RegistryTest, NamesThePathThatWasMeant)
{
    Process holder("holder"), other("other");
    registerService(holder, "n", service("/media/player"));
    for (int number = 0; number < 10000; ++number) { // more than are looked at
        registerService(holder, "m", service("/many/" + std::to_string(number)));
    }
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"/media/plaier", "/media/player"},
        {"/meida/player", "/media/player"},
        {"/Media/Player", "/media/player"},
        {"/mediaplayer", "/media/player"},
        {"/manny/5", "/many/5"},
        {"/many/99x9", "/many/9909"},
        {"/meny/7777", "/many/7777"},
        {"/something/else", "undefined"},
    };
    for (const auto& [path, meant] : expected) {
        const GenericObject answer = explain(other, path);
        EXPECT_EQ(answer["nearest"].isDefined() ? answer["nearest"].toText() : "undefined", meant) << path;
    }
}

TEST_F(RegistryTest, ExplainsWhatAProcessIsNotToldOf)
{
    Process provider("provider", "there"), watcher("watcher"), blind("blind");
    Query scoped("/s"), selective("/s");
    scoped.scope = "cellar";
    selective.metadata = GenericObject{{"floor", "first"}, {"room", "hall"}};
    for (const Query& each : {Query("/*"), scoped, selective, Query("/other")}) {
        query(watcher, "q", each);
    }
    query(blind, "q", Query("/other"));
    EXPECT_EQ(explain(blind, "/s", "watcher")["for"]["asks"].arraySize(), 3U);
    ServiceDef record = service("/s");
    record.scope = std::vector<std::string>{"attic"};
    record.metainfo = GenericObject{{"floor", "first"}};
    registerService(provider, "r", record);
    track(watcher, "t", "/s");

    const auto asks = [this, &blind](const std::string& path) {
        Lines lines;
        const GenericObject explanation = explain(blind, path, "watcher");
        for (const auto& ask : explanation["for"]["asks"].items()) {
            lines.push_back(ask["kind"].toText() + ' ' + ask["told"].toText() + ' ' + ask["because"].toText() +
                            (ask["key"].isDefined() ? " of " + ask["key"].toText() : ""));
        }
        return lines;
    };
    EXPECT_THAT(asks("/s"), ElementsAre("tracking true undefined", "query true undefined", "query false scope",
                                        "query false metadata of room"));
    const util::config::Value blinds = explain(blind, "/s", "blind")["for"];
    EXPECT_EQ(blinds["asks"].arraySize(), 0U);
    EXPECT_EQ(blinds["known"], true);
    EXPECT_EQ(blinds["may"][0]["see"].toText(),
              R"({"allowed":true,"because":"root and the registry's own user may everything"})");
    EXPECT_EQ(explain(blind, "/s", "nobody")["for"]["known"], false);

    registerService(provider, "r", service("/far", "ipc://p+there/s"));
    EXPECT_THAT(asks("/far"), ElementsAre("query false realm"));
    EXPECT_EQ(explain(watcher, "/far")["hiddenBy"], "realm");
    EXPECT_FALSE(explain(provider, "/far")["hiddenBy"].isDefined());
}

TEST_F(RegistryTest, FirstAnswersWaitForTheirPeer)
{
    Process provider("provider"), slow("slow");
    constexpr int COUNT = 1000;
    std::vector<void*> handles;
    const auto path = [](int number) { return "/s/" + std::to_string(10000 + number); };
    for (int number = 0; number < COUNT; ++number) {
        handles.push_back(registerService(provider, "r", service(path(number))));
    }
    while (provider.peer->drain()) {
    }
    std::map<std::string, int> believed;
    std::size_t lists = 0;
    bool isComplete = false;
    const auto note = [&](const std::vector<RegistryUpdate>& list) {
        ++lists;
        isComplete = isComplete || list.empty();
        for (const RegistryUpdate& update : list) {
            int& count = believed[update.element->path.toString()];
            count += update.updateType == UpdateType::ADDED ? 1 : -1;
            EXPECT_TRUE(count == 0 || count == 1) << textOf(update);
        }
    };
    query(slow, "q", Query("/s/**"), note);
    query(slow, "second", Query("/s/**"));
    const std::size_t atOnce = lists;
    EXPECT_LE(atOnce, 4U);
    told();
    // What has been listed is told of before the list goes on, what has not is told as it is when its turn comes.
    m_registry->cancelRequest(handles[0]);
    m_registry->cancelRequest(handles[COUNT - 1]);
    registerService(provider, "r", service("/s/0"));
    registerService(provider, "r", service("/s/99999"));
    EXPECT_THAT(told(), ElementsAre("r: ~", "r: ~", "r: registered /s/0", "r: registered /s/99999"));
    EXPECT_FALSE(isComplete);
    slow.peer->drain();
    EXPECT_EQ(told().front(), "q: [-/s/10000+/s/0]");
    while (!isComplete && slow.peer->drain()) {
    }
    EXPECT_TRUE(isComplete);
    EXPECT_GT(lists, atOnce + 1);
    std::erase_if(believed, [](const auto& each) { return each.second == 0; });
    EXPECT_EQ(believed.size(), static_cast<std::size_t>(COUNT));
    EXPECT_FALSE(believed.contains(path(0)) || believed.contains(path(COUNT - 1)));
    // The other query goes on, and its peer may find the registry gone.
    EXPECT_FALSE(slow.peer->tasks.empty());
    m_registry.reset();
    slow.peer->drain();
}

TEST_F(RegistryTest, NewsWaitForAPeerThatDoesNotTakeThem)
{
    Process provider("provider"), slow("slow"), quick("quick");
    query(slow, "slow", Query("**"));
    query(quick, "quick", Query("**"));
    track(slow, "path", "/a");
    while (slow.peer->drain() || quick.peer->drain()) {
    }
    ServiceDef large = service("/b");
    large.hostDomain = std::string(30000, 'x');
    for (int round = 0; round < 6; ++round) { // fills the window
        m_registry->cancelRequest(registerService(provider, "r", large));
    }
    while (quick.peer->drain() || provider.peer->drain()) {
    }
    told();
    void* const handle = registerService(provider, "r", service("/a"));
    m_registry->cancelRequest(handle);
    const auto cancelled = query(slow, "cancelled", Query("/a"));
    registerService(provider, "r", service("/a"));
    m_registry->cancelRequest(cancelled);
    const Lines meanwhile = told();
    EXPECT_THAT(meanwhile, Contains("quick: [+/a]"));
    EXPECT_THAT(meanwhile, Not(Contains(testing::StartsWith("slow: "))));
    EXPECT_TRUE(slow.peer->pings.empty());
    Lines late;
    while (slow.peer->drain()) {
        const Lines more = told();
        late.insert(late.end(), more.begin(), more.end());
    }
    late.erase(late.begin(), std::find(late.begin(), late.end(), "path: +/a")); // the rest about /b
    EXPECT_THAT(late, ElementsAre("path: +/a", "slow: [+/a]", "path: -/a", "slow: [-/a]", "path: +/a", "slow: [+/a]"));

    for (std::size_t count = 0; count < MAX_WAITING; ++count) {
        m_registry->cancelRequest(registerService(provider, "r", service("/b")));
        told();
    }
    EXPECT_EQ(slow.peer->pings.size(), 1U) << "a peer for whom that much waits has to live";
}

TEST_F(RegistryTest, OfAUserForWhomTooMuchWaitsTheSlowestIsCutOff)
{
    Process provider("provider"), slow("slow"), slower("slower"), trusted("trusted");
    slow.context.uid = slower.context.uid = 1000;
    for (Process* const process : {&slow, &slower, &trusted}) {
        query(*process, process->context.process, Query("**"));
        query(*process, "again", Query("**"));
    }
    ServiceDef large = service("/b");
    large.hostDomain = std::string(30000, 'x');
    std::size_t changes = 0;
    while (slower.peer->disconnected.empty() && changes++ < 2000) {
        m_registry->cancelRequest(registerService(provider, "r", large));
        provider.peer->drain();
        if (changes % 2 == 0) {
            slow.peer->drain();
        }
        told();
    }
    EXPECT_THAT(slower.peer->disconnected, HasSubstr(std::to_string(MAX_USER_WAITING_BYTES)));
    EXPECT_EQ(slow.peer->disconnected + trusted.peer->disconnected, "");
    EXPECT_GT(changes, MAX_USER_WAITING_BYTES / 300'000);
    while (slower.peer->drain()) {
    }
    EXPECT_THAT(told(), Not(Contains(testing::StartsWith("slower: "))));
    while (slow.peer->drain() || trusted.peer->drain()) {
    }
    EXPECT_THAT(told(), Contains(testing::StartsWith("slow: ")));
}

TEST_F(RegistryTest, RefusesWhatIsWrongAndSaysWhy)
{
    Process process("process");
    ServiceDef large = service("/a");
    large.hostDomain = std::string(MAX_RECORD_BYTES, 'x');
    Query deep("**");
    deep.metadata = GenericObject{{"key", std::string(MAX_QUERY_BYTES, 'x')}};
    ServiceDef wide = service("/a");
    wide.locators.assign(65, url("ipc://p/s"));
    std::string dear;
    for (int count = 0; count < 300; ++count) {
        dear += "*a";
    }
    for (void* const handle : {registerService(process, "large", large), query(process, "deep", deep),
                               registerService(process, "bent", service("/a/../b")), track(process, "bent", "a"),
                               query(process, "glob", Query("/a/[b")), registerService(process, "glob", service("/a*")),
                               track(process, "glob", "/a["), query(process, "long", Query(std::string(1025, 'a'))),
                               query(process, "dear", Query(dear)), registerService(process, "wide", wide)}) {
        EXPECT_EQ(handle, IKesaApi::UNDEFINED_REQUEST_HANDLE);
    }
    const Lines lines = told();
    ASSERT_EQ(lines.size(), 20U); // each with its end
    for (const std::size_t index : {0U, 2U}) {
        EXPECT_THAT(lines[index], testing::AllOf(HasSubstr(": 400: the "), HasSubstr("the limit is 32768")));
    }
    EXPECT_THAT(lines[4], HasSubstr("400: '/a/../b' is no path"));
    EXPECT_THAT(lines[6], HasSubstr("400: 'a' is no path"));
    EXPECT_THAT(lines[8], HasSubstr("position 4"));
    EXPECT_THAT(lines[10], HasSubstr("400: '/a*' has a '*', which stands for"));
    EXPECT_THAT(lines[12], HasSubstr("400: '/a[' has a '[', which stands for"));
    EXPECT_THAT(lines[14], HasSubstr("400: the glob takes 1025 bytes, the limit is 1024"));
    EXPECT_THAT(lines[16], HasSubstr(" steps of matching, the limit is 200000: ask for less by fewer wildcards"));
    EXPECT_THAT(lines[18], HasSubstr("400: \"locators\" of the record has 65 entries, the limit is 64"));

    m_registry->registerService(noting<ServiceDef>(m_lines, "other"), Path("/b"), service("/a"));
    EXPECT_THAT(told(), ElementsAre("other: 400: path of the record differs from the request path", "other: ~"));
}

TEST_F(RegistryTest, LimitsQueriesOfAProcess)
{
    Process process("process"), other("other");
    other.context.pid = 8;
    void* last = nullptr;
    for (std::size_t count = 0; count < MAX_QUERIES; ++count) {
        last = query(process, "q", Query("/q"));
    }
    while (process.peer->drain()) {
    }
    told();
    EXPECT_EQ(query(process, "over", Query("/q")), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    query(other, "other", Query("/q"));
    EXPECT_THAT(told(), ElementsAre("over: 400: process process (pid 7) has 16384 queries at the registry, and this "
                                    "takes 1 more; the limit is 16384: end some before",
                                    "over: ~", "other: []"));
    process.reconnect();
    EXPECT_EQ(query(process, "over", Query("/q")), IKesaApi::UNDEFINED_REQUEST_HANDLE) << "over another connection";
    m_registry->cancelRequest(last);
    EXPECT_NE(query(process, "again", Query("/q")), IKesaApi::UNDEFINED_REQUEST_HANDLE);
}

TEST_F(RegistryTest, LimitsWhatAUserHas)
{
    m_registry = std::make_unique<Registry>(runtime::v02::RegistryLimits{1U << 20U, 4U << 20U});
    m_asked = m_registry.get();
    const auto fill = [this](std::int64_t uid) { // answers with the last one's handle, and how many there are
        std::pair<void*, int> filled{nullptr, 0};
        for (std::int64_t pid = 1; pid <= 10; ++pid) { // whatever number of processes asks
            Process process("process");
            process.context.uid = uid;
            process.context.pid = 100 * uid + pid;
            for (int number = 0; number < 200; ++number) {
                const std::string path = "/u" + std::to_string(uid) + '/' + std::to_string(200 * pid + number);
                void* const handle = registerService(process, "r", service(path));
                filled = handle == nullptr ? filled : std::pair(handle, filled.second + 1);
            }
        }
        return filled;
    };
    const auto [last, count] = fill(1000);
    EXPECT_GT(count, 400); // some 1.5 KiB each
    EXPECT_LT(count, 1000);
    EXPECT_THAT(told(), Contains(testing::AllOf(
                            HasSubstr("r: 400: user 1000 has 10"), HasSubstr("bytes of requests at the registry"),
                            HasSubstr("the limit is 1048576: end some, or raise \"max_user_bytes\""))));
    Process another("another");
    another.context.uid = 1000;
    EXPECT_EQ(registerService(another, "t", service("/u1000/1000")), nullptr);
    m_registry->cancelRequest(last);
    void* const accepted = registerService(another, "t", service("/u1000/1000"));
    EXPECT_NE(accepted, nullptr) << "what has ended counts no more";
    m_registry->cancelRequest(accepted);

    EXPECT_EQ(fill(1001).second, count) << "each user has an account of his own";
    told();
    EXPECT_LT(fill(1002).second, 10) << "but half of all is kept";
    EXPECT_THAT(told(), Contains(HasSubstr("everybody but root and the registry's user has ")));
    EXPECT_GT(fill(0).second, count) << "for root";
}

TEST_F(RegistryTest, SaysNothingOnceACancelHasReturned)
{
    const auto work = [this](const std::string& name, bool isProvider) {
        Process process(name);
        process.context.stream = nullptr;
        process.context.peer = nullptr; // taken to live
        const RequestContext::Scope scope(&process.context);
        for (int round = 0; round < 300; ++round) {
            const auto lines = std::make_shared<Lines>(); // a call after the cancel would race with the look at it
            const std::string path = "/a/" + std::to_string(round % 3);
            void* const handle =
                isProvider ? m_registry->registerService(noting<ServiceDef>(lines, "r"), Path(path), service(path))
                           : m_registry->queryRegistry(noting<std::vector<RegistryUpdate>>(lines, "q"), Query("/a/*"));
            m_registry->cancelRequest(handle);
            EXPECT_EQ(lines->back().substr(3), "~");
        }
    };
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back(work, "process" + std::to_string(number), number % 2 == 0);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Process last("last");
    query(last, "q", Query("**"));
    EXPECT_THAT(told(), ElementsAre("q: []"));
}

TEST_F(RegistryTest, HandlersMayCallBackAndDieWithNoLockHeld)
{
    Process provider("provider"), watcher("watcher");
    void* own = nullptr;
    own = query(watcher, "q", Query("**"), [&](const std::vector<RegistryUpdate>& list) {
        if (!list.empty()) {
            m_registry->cancelRequest(own);
            registerService(provider, "inner", service("/b"));
        }
    });
    track(watcher, "t", "/b");
    told();
    registerService(provider, "outer", service("/a"));
    EXPECT_THAT(told(), ElementsAre("outer: registered /a", "q: [+/a]", "inner: registered /b", "t: +/b", "q: ~"));
}

} // namespace
} // namespace kesa::registry::test
