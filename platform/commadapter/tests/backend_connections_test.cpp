// When a client object is connected, and to what: services that come late, go, come back; locators and routes; how long
// connections stay; what becomes of peers that are silent.

#include "CarelessPeer.h"
#include "backend/connection/UserAccounts.h"

#include <comm/PeerLines.h>
#include <kesa/RequestContext.h>

#include <algorithm>

namespace kesa::commadapter::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

using BackendConnections = SimulatedBackends;

TEST_F(BackendConnections, ClientThatComesFirstLearnsOfItsServiceAtOnceAndKnowsWhyNot)
{
    auto clientBackend = makeBackend("client");
    Client client(*clientBackend, "ipc://server/service");
    EXPECT_EQ(client.api().obstacle(), "no connection yet (begun 0 ms ago)");
    runFor(60'000);
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("'ipc://server'"))) << "the reason is traced once";
    EXPECT_EQ(client.api().obstacle(), "nobody listens");
    const auto early = client.request(retrieve("/"));
    settle();
    EXPECT_EQ(early->errorText, "the service is not connected: " + client.api().obstacle());

    CheckedService other;
    CheckedService service;
    auto server = makeBackend("server");
    ASSERT_NE(provide(*server, "/other", other), "");
    runFor(1000);
    EXPECT_FALSE(client.isConnected()) << "the process is there, its path is not";
    EXPECT_EQ(client.api().obstacle(), "\"server\" answers, and does not provide \"/service\"");
    Client late(*clientBackend, "ipc://server/late");
    runFor(99);
    EXPECT_EQ(late.api().obstacle(), "no connection yet (begun 99 ms ago)");
    runFor(1);
    EXPECT_EQ(late.api().obstacle(),
              "\"server\" has said nothing since it was asked for \"/late\": it does not provide "
              "that, or is stopped or blocked");
    ASSERT_NE(provide(*server, "/service", service), "");
    EXPECT_LE(timeUntil([&] { return client.isConnected(); }), 2 * comm::MILLISECOND);
    EXPECT_EQ(client.api().obstacle(), "");
    client.release();
    EXPECT_THAT(client.api().obstacle(), HasSubstr("the client object was released, as its subscription was"));
    late.release();
    clientBackend->stop();
    EXPECT_EQ(client.api().obstacle(), "shutting down");
}

/// The hello of a peer that speaks later versions.
std::string laterHello()
{
    using namespace std::string_literals;
    return "\x18\0\0\0\x01\0\x18\0\0\0\0\0\0\0\0\0\xbf\x10\x07\x11\x09\x14\x50"
           "0123456789abcdef\xff"s;
}

TEST_F(BackendConnections, APeerThatIsCutOffAgainAndAgainFillsNoLog)
{
    CheckedService service;
    auto server = makeBackend("server");
    ASSERT_NE(provide(*server, "/a", service), "");
    const auto cutOff = [&](unsigned times, const std::string& said) {
        for (unsigned i = 0; i < times; ++i) {
            CarelessPeer peer(*network, protocol::Role::eCLIENT);
            peer.connect("ipc://server");
            scheduler->runFor(0);
            peer.send(protocol::testing::Bytes(said.begin(), said.end()));
            scheduler->runFor(0);
        }
        return traces->take();
    };
    const std::string rubbish(16, '\xff');
    const auto told = cutOff(3 * comm::PeerLines::LINES, rubbish);
    EXPECT_EQ(told.size(), comm::PeerLines::LINES);
    EXPECT_THAT(told.back(), HasSubstr("; more because of process 9 are suppressed for a second"));
    runFor(1000);
    EXPECT_THAT(cutOff(1, rubbish), ElementsAre(HasSubstr("; 40 more because of process 9 suppressed")));

    const auto ofVersion = HasSubstr("is cut off: no common protocol version: ");
    EXPECT_THAT(cutOff(3, laterHello()), ElementsAre(testing::AllOf(ofVersion, testing::Not(HasSubstr("more")))));
    runFor(60'000);
    EXPECT_THAT(cutOff(2, laterHello()),
                ElementsAre(testing::AllOf(ofVersion, HasSubstr("; and 2 more since the last such line"))))
        << "once a minute";
}

TEST_F(BackendConnections, WhatAPeerHadIsFreeAgainAfterItsEnd)
{
    constexpr unsigned MORE_THAN_A_PROCESS_MAY_HAVE = 140;
    constexpr std::uint32_t PATHS = 10; // of a connection; of all of them more than a user may have, as of the rest
    CheckedService service;
    auto server = makeBackend("server");
    const std::string locator = provide(*server, "/a", service);
    network->setUser(9, 1001);
    protocol::testing::Bytes begun(protocol::HEADER_BYTES + protocol::FRAME_BYTES, 'x');
    const protocol::testing::Bytes head = {0xBF, 3, 0x1A, 0, 0xF0, 0, 0, 0xFF}; // of a body of 15 MiB
    protocol::writeHeader(begun.data(), {protocol::FRAME_BYTES, 5, protocol::FLAG_MORE, 8, 1, 1});
    std::copy(head.begin(), head.end(), begun.begin() + protocol::HEADER_BYTES);
    for (unsigned i = 0; i < MORE_THAN_A_PROCESS_MAY_HAVE; ++i) {
        CarelessPeer peer(*network, protocol::Role::eCLIENT);
        for (std::uint32_t target = 1; target <= PATHS; ++target) {
            static_cast<void>(peer.machine().output.attach(target, '/' + std::string(4000, 'p')));
        }
        peer.connect("ipc://server");
        scheduler->runFor(0);
        peer.send();
        peer.send(begun);
        scheduler->runFor(0);
    }
    runFor(1);
    EXPECT_THAT(traces->take(), testing::IsEmpty()) << "nobody was cut off";
    auto other = makeBackend("other");
    network->setUser(lastGroup, 1001);
    Client client(*other, locator);
    settle();
    const auto answer = client.request(retrieve("/echo", std::string(1U << 20U, 'x')));
    settle();
    EXPECT_TRUE(answer->isCompleted);
}

TEST_F(BackendConnections, SaysWhatListensThatGivesNoGoodHello)
{
    using Say = std::function<void(CarelessPeer&)>;
    const auto bytes = [](const std::string& said) -> Say {
        return [said](CarelessPeer& peer) { peer.send(protocol::testing::Bytes(said.begin(), said.end())); };
    };
    const Say attached = [](CarelessPeer& peer) {
        peer.machine().output.attached(1);
        peer.send();
    };
    const std::pair<Say, std::string> all[] = {
        {bytes("HTTP/1.1 400 Bad Request\r\n\r\n"), "another program, or just ending: frame of"},
        {bytes(laterHello()), "of another version: no common protocol version: "},
        {[](CarelessPeer&) {}, "stopped or blocked: no hello within 3000 ms"},
        {attached, "another process: another name: process 9 listens on the socket of \"server\" and calls itself "
                   "\"careless\"; end it and start \"server\" anew, or name \"careless\" in the locator"}};
    for (const auto& [say, what] : all) {
        restart();
        CarelessPeer peer(*network, protocol::Role::eSERVER);
        peer.listen("server");
        auto backend = makeBackend("client");
        Client client(*backend, "ipc://server/service");
        runFor(999);
        EXPECT_THAT(client.api().obstacle(), HasSubstr("no connection yet (begun 99"));
        runFor(10);
        EXPECT_EQ(client.api().obstacle(),
                  "\"server\" takes the connection and has said nothing yet, like one that is stopped or blocked");
        say(peer);
        const std::string whole = "what listens as \"server\" is " + what;
        EXPECT_LE(timeUntil([&] { return client.api().obstacle().rfind(whole, 0) == 0; }), 4 * comm::SECOND);
        EXPECT_EQ(client.connections(), 0U);
    }
}

TEST_F(BackendConnections, OneConnectionServesAllAndLingers)
{
    settings.heartbeat = 100 * comm::SECOND;
    CheckedService service;
    auto server = makeBackend("server");
    const std::string a = provide(*server, "/a", service);
    const std::string b = provide(*server, "/b", service);
    auto clientBackend = makeBackend("client");
    const auto connect = [&](const std::string& locator) {
        auto client = std::make_unique<Client>(*clientBackend, locator);
        settle();
        EXPECT_TRUE(client->isConnected());
        return client;
    };
    const auto first = connect(a);
    const auto second = connect("IPC" + b.substr(3)); // the same endpoint
    first->release();
    settle();
    const auto third = connect(a);
    EXPECT_EQ(second->connections(), 1U);
    second->release();
    runFor(10'000);
    EXPECT_EQ(network->openStreams(), 2U);
    third->release();
    runFor(1000);
    EXPECT_EQ(network->openStreams(), 2U);
    runFor(3000);
    EXPECT_EQ(network->openStreams(), 0U);

    connect(a)->release(true);
    settle();
    EXPECT_EQ(network->openStreams(), 0U) << "the service was removed";
    connect(a)->release();
    network->cut(1, 2);
    runFor(1000);
    EXPECT_EQ(network->openStreams(), 0U) << "it only lingered";
}

using BackendReconnects = SimulatedPair;

TEST_F(BackendReconnects, AtOnceToWhatRestartsAndSeldomToWhatEndsAtOnce)
{
    begin();
    bool isEnding = true;
    client->onChange = [&] {
        if (isEnding && client->isConnected()) {
            network->cut(1, 2);
        }
    };
    network->cut(1, 2);
    runFor(20'000);
    EXPECT_GT(client->connections(), 20U);
    EXPECT_LT(client->connections(), 40U);
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("is not connected"), HasSubstr("is connected now")));

    isEnding = false;
    const unsigned before = client->connections();
    EXPECT_LT(timeUntil([&] { return client->connections() > before; }), comm::SECOND);
    std::uint64_t group = 1;
    for (int restarts = 0; restarts < 3; ++restarts) {
        settle();
        kill(server, group);
        settle();
        EXPECT_FALSE(client->isConnected());
        server = makeBackend("server");
        group = lastGroup;
        provide(*server, "/service", service);
        EXPECT_LT(timeUntil([&] { return client->isConnected(); }), 2 * comm::MILLISECOND);
    }
    runFor(2000);
    traces->take();
    network->cut(group, 2);
    EXPECT_LT(timeUntil([&] { return !client->isConnected(); }), comm::MILLISECOND);
    EXPECT_LT(timeUntil([&] { return client->isConnected(); }), 2 * comm::MILLISECOND);
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("is not connected"), HasSubstr("is connected now")))
        << "it had lasted";
    runFor(2000);
    kill(server, group);
    runFor(2000);
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("is not connected: the peer's process has ended")))
        << "that nobody listens is plain";
}

TEST_F(BackendConnections, LocatorsAreJudgedByTheirText)
{
    settings.routes = {{"/registry", "IPC://registry/registry"}, {"/own", "ipc://server/elsewhere"}};
    auto server = makeBackend("server");
    const std::string realm = network->realm();
    for (const std::string good :
         {"ipc://p/a", "IPC://p/a", "ipc://p/a/b%20c", "/registry", "/registry/x", "ipc://p+REALM/a"}) {
        const std::size_t at = good.find("REALM");
        const std::string text = at == std::string::npos ? good : std::string(good).replace(at, 5, realm);
        EXPECT_TRUE(server->canHandle(url(text))) << text;
    }
    for (const std::string bad : {"", "ipc://p", "ipc://p/a/", "ipc://p/a?q", "ipc://p/a#f", "ipc:///a",
                                  "ipc://p+0123456789abcdef/a", "tcp://h:1/a", "registry", "/registryx", "nonsense"}) {
        EXPECT_FALSE(server->canHandle(url(bad))) << bad;
        Client never(bad);
        EXPECT_EQ(server->connect(url(bad), &never), nullptr) << bad;
    }
    EXPECT_THAT(traces->take(), Contains(HasSubstr("'/registryx' has no scheme and no route")));

    CheckedService service;
    EXPECT_EQ(provide(*server, "/a b", service), "ipc://server+" + realm + "/a%20b");
    EXPECT_EQ(provide(*server, "/a b", service), "") << "provided already";
    EXPECT_TRUE(server->provideOnLocator(url("ipc://server/a%20b"), &service)) << "the same place";
    EXPECT_TRUE(server->provideOnLocator(url("ipc://other/a"), &service));
    EXPECT_TRUE(server->provideOnLocator(url("ipc://server/a"), nullptr));
    EXPECT_EQ(provide(*server, "/a/", service), "");
    EXPECT_FALSE(server->provideOnLocator(url("/own"), &service));
    Client client(*server, "Ipc://server/elsewhere");
    server->unprovide(url("ipc://nobody/elsewhere"));
    server->unprovide(url("nonsense"));
    settle();
    EXPECT_TRUE(client.isConnected());
    server->unprovide(url("/own"));
    settle();
    EXPECT_FALSE(client.isConnected());
}

// ---- liveness -----------------------------------------------------------------------------------------------------

class BackendLiveness : public SimulatedPair {
protected:
    BackendLiveness()
    {
        settings.heartbeat = comm::SECOND;
        begin();
    }
    const Request single = withSemantic(retrieve("/stream"), "single-response");
};

TEST_F(BackendLiveness, SilentPeerThatOwesNothingIsLeftAlone)
{
    client->request(persistent());
    client->request(single);
    settle();
    service.handlers().back()->onCompleted();
    scheduler->pauseGroup(1);
    EXPECT_TRUE(scheduler->runAll(1000)) << "the heartbeat finds nothing owed and ends";
    runFor(100'000);
    EXPECT_TRUE(client->isConnected());
    scheduler->continueGroup(1);
}

TEST_F(BackendLiveness, SilentPeerThatOwesAnAnswerIsGivenUpUnlessThisProcessSlept)
{
    const auto outcome = client->request(single);
    settle();
    runFor(20'000);
    EXPECT_TRUE(client->isConnected()) << "the service is slow, but its process answers pings";
    scheduler->pauseGroup(2); // the client's own process
    runFor(100'000);
    scheduler->continueGroup(2);
    runFor(10'000);
    EXPECT_EQ(client->connections(), 1U);
    EXPECT_FALSE(outcome->hasEnded());

    client->onChange = [&] { EXPECT_EQ(outcome->status, 503); };
    scheduler->pauseGroup(1);
    EXPECT_LE(timeUntil([&] { return !client->isConnected(); }), 3 * comm::SECOND);
    EXPECT_THAT(outcome->errorText, HasSubstr("silent"));
    scheduler->continueGroup(1);
    runFor(3000);
    EXPECT_TRUE(client->isConnected()) << "it heals";
}

// Both have read much in one go that takes long to handle, a little in each turn, and read nothing meanwhile: the
// answers to their pings wait in the stream.
TEST_F(BackendLiveness, PeerWhoseBytesAreNotHandledYetIsNotSilent)
{
    std::shared_ptr<IPeer> peer;
    service.onRequest = [&peer](const Request&) {
        peer = RequestContext::current()->peer;
        work(10);
    };
    const auto stream = client->request(persistent());
    client->request(single);
    settle();
    stream->onValue = [] { work(10); };
    const auto values = service.handlers().front();
    scheduler->pauseGroup(2);
    std::optional<bool> isProven;
    peer->proveAlive(comm::SECOND, [&isProven](bool isAlive) { isProven = isAlive; });
    settle(); // the ping is on its way
    for (int i = 0; i < 400; ++i) {
        client->request(retrieve("/echo"));
        EXPECT_FALSE(values->onNext(value("x")));
    }
    settle();
    scheduler->continueGroup(2);
    runFor(20'000);
    EXPECT_EQ(isProven, true);
    EXPECT_EQ(client->connections(), 1U);
    EXPECT_THAT(stream->values, SizeIs(400));
}

// ---- proof of life, as a service asks for it ----------------------------------------------------------------------

/// The client has a request open at the service, which keeps its peer.
class BackendPeers : public SimulatedPair {
protected:
    BackendPeers()
    {
        service.onRequest = [this](const Request&) { peer = RequestContext::current()->peer; };
        begin();
        client->request(retrieve("/stream"));
        settle();
    }
    /// The answer appears in `answers`, with how many requests had been cancelled by then, and why.
    void ask(comm::TimeNs within = comm::SECOND)
    {
        peer->proveAlive(within, [this](bool isAlive) {
            EXPECT_EQ(peer->endReason().empty(), isAlive);
            const std::string dead = "dead, cancels: " + std::to_string(service.cancels()) + ", " + peer->endReason();
            answers.push_back(isAlive ? "alive" : dead);
        });
    }
    comm::TimeNs timeToAnswers(std::size_t count)
    {
        return timeUntil([&] { return answers.size() >= count; });
    }

    const std::string SILENT = "dead, cancels: 2, silent for 1000 ms after a ping";
    std::shared_ptr<IPeer> peer;
    std::vector<std::string> answers;
};

TEST_F(BackendPeers, OnlyTheAnswerToOnesOwnQuestionCounts)
{
    faults.draw = [](std::uint64_t bound) { return bound - 1; };
    faults.longestDelay = 10 * comm::MILLISECOND; // each way
    network->setFaults(faults);
    client->request(retrieve("/stream"));
    ask(16 * comm::MILLISECOND);
    runFor(15);
    scheduler->pauseGroup(2); // it has answered
    ask();
    settle();
    EXPECT_THAT(answers, ElementsAre("alive")) << "something else was heard in time";
    EXPECT_GE(timeToAnswers(2), 900 * comm::MILLISECOND);
    EXPECT_THAT(answers, ElementsAre("alive", SILENT));
    scheduler->continueGroup(2);
}

TEST_F(BackendPeers, PeerMayOutliveItsBackend)
{
    scheduler->pauseGroup(2);
    ask();
    server->stop();
    EXPECT_THAT(answers, ElementsAre("dead, cancels: 1, shutting down")) << "the connection has ended";
    ask();
    server.reset();
    ask();
    peer->whenDrained([] { FAIL(); });
    peer->disconnect("gone");
    scheduler->continueGroup(2);
    settle();
    EXPECT_THAT(answers, SizeIs(1)) << "dropped";
}

TEST(BackendAccounts, OtherUsersLeaveConnectionsToWhoIsTrustedAndSomeToWhoHasFew)
{
    using Kind = UserAccounts::Kind;
    UserAccounts accounts;
    const auto openAll = [&accounts](std::int64_t uid) {
        std::size_t opened = 0;
        while (accounts.whyNoMore(Kind::eCONNECTIONS, uid, 1).empty()) {
            accounts.change(Kind::eCONNECTIONS, uid, opened, opened + 1);
            ++opened;
        }
        return opened;
    };
    constexpr std::int64_t FIRST_OTHER = 70001;
    std::size_t others = 0;
    for (std::int64_t uid = FIRST_OTHER; uid < FIRST_OTHER + 3; ++uid) {
        const std::size_t opened = openAll(uid);
        EXPECT_GT(opened, 0U) << "whatever others have";
        others += opened;
    }
    EXPECT_THAT(accounts.whyNoMore(Kind::eCONNECTIONS, FIRST_OTHER, 1), HasSubstr("together they may have"));
    EXPECT_GE(openAll(0), others / 8);
}

} // namespace
} // namespace kesa::commadapter::test
