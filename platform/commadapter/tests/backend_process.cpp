// What a process says of itself when it is asked at "/.well-known/process", and what it tells its own user.

#include "backend_support.h"

#include "backend/ProcessDescription.h"
#include "backend/ProcessService.h"
#include "backend/StreamTable.h"

#include <comm/wallClock.h>
#include <util/config/JSONParser.h>

#include <gtest/gtest.h>

#include <unistd.h>

namespace kesa::commadapter::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using util::config::Value;

const std::string PATH(ProcessService::PATH);
const std::string LOCATOR = "ipc://server" + PATH;

Value parse(std::string_view text)
{
    Value value;
    EXPECT_FALSE(util::config::JSONParser().parseString(text, value)) << text;
    return value;
}

std::int64_t number(const Value& value)
{
    std::int64_t result = -1;
    EXPECT_FALSE(value.get(result)) << value.toText();
    return result;
}

/// A server (group 1), a client of its service (group 2) and one who asks what they are (group 3).
class BackendProcess : public SimulatedPair {
protected:
    void begin()
    {
        SimulatedPair::begin();
        askingBackend = makeBackend("asker");
        asker = std::make_unique<Client>(*askingBackend, LOCATOR);
        asker->start();
        settle();
        ASSERT_TRUE(asker->checker.isConnected());
    }
    ~BackendProcess() override { asker.reset(); }
    std::shared_ptr<Outcome> ask(const Request& request)
    {
        auto outcome = asker->request(request);
        settle();
        EXPECT_TRUE(outcome->hasEnded());
        return outcome;
    }
    Value askServer() { return parse(ask(retrieve("/"))->values.at(0)); }
    static Value connectionOf(const Value& description, std::string_view process)
    {
        for (const Value& connection : description["connections"].items()) {
            if (connection["process"].stringView() == process) {
                return connection;
            }
        }
        return {};
    }

    std::unique_ptr<IBackend> askingBackend;
    std::unique_ptr<Client> asker;
};

TEST_F(BackendProcess, TellsWhatItIsWhatItProvidesAndWhoIsThere)
{
    begin();
    CheckedService other("other");
    ASSERT_NE(provide(*server, "/another", other), "");
    const auto kept = client->request(retrieve("/kept"));
    const Value description = askServer();
    EXPECT_EQ(description["process"].toText(), "server");
    EXPECT_EQ(number(description["pid"]), ::getpid());
    EXPECT_EQ(number(description["uid"]), ::geteuid());
    EXPECT_THAT(description["executable"].toText(), HasSubstr("kesa_commadapter_tests"));
    EXPECT_EQ(description["realm"].toText(), network->realm());
    EXPECT_FALSE(description["version"].stringView().empty());
    EXPECT_EQ(description["services"].toText(), R"(["/another","/service"])") << "the own one is none of the process";
    EXPECT_EQ(number(description["serviceCount"]), 2);
    EXPECT_EQ(number(description["connectionCount"]), 2);
    const comm::TimeNs now = comm::wallClock() / comm::MILLISECOND;
    EXPECT_LE(number(description["started"]), number(description["backendStarted"]));
    EXPECT_LE(number(description["backendStarted"]), now);

    const Value peer = connectionOf(description, "client");
    EXPECT_EQ(peer["openedBy"].toText(), "peer");
    EXPECT_EQ(peer["connected"], Value(true));
    EXPECT_EQ(number(peer["openRequests"]), 1);
    EXPECT_EQ(number(peer["queuedBytes"]), 0);
    EXPECT_EQ(peer["held"], Value(false));
    EXPECT_LE(number(peer["since"]), now);
    client->cancel(*kept);
    settle();
    EXPECT_EQ(number(connectionOf(askServer(), "client")["openRequests"]), 0);

    client->release();
    asker->release();
    server.reset();
    const auto unreachable = std::make_unique<Client>(*clientBackend, "ipc://nobody/x");
    unreachable->start();
    settle();
    const Value own = parse(clientBackend->describe());
    EXPECT_EQ(own["realm"].toText(), "") << "it does not listen";
    EXPECT_EQ(own["services"].toText(), "[]");
    const Value missing = connectionOf(own, "nobody");
    EXPECT_EQ(missing["openedBy"].toText(), "self");
    EXPECT_EQ(missing["connected"], Value(false));
    EXPECT_THAT(missing["reason"].toText(), HasSubstr("nobody"));
    unreachable->release();
    clientBackend->stop();
    EXPECT_EQ(clientBackend->describe(), "");
}

TEST_F(BackendProcess, HeldConnectionsAndLongListsAreToldInBounds)
{
    settings.sendQueueBytes = 64U << 10U;
    settings.maxMessageBytes = 256U << 10U;
    begin();
    for (int i = 0; i < 100; ++i) {
        client->request(retrieve("/kept"));
    }
    settle();
    scheduler->pauseGroup(2);
    for (const auto& handler : service.handlers()) {
        handler->onNext(value(std::string(10'000, 'x')));
    }
    settle();
    client->request(retrieve("/kept"));
    Value description = askServer();
    const Value peer = connectionOf(description, "client");
    EXPECT_EQ(peer["held"], Value(true));
    EXPECT_GE(number(peer["queuedBytes"]), 64 << 10);
    EXPECT_GT(number(peer["unreadBytes"]), 0);
    EXPECT_GE(number(description["queuedBytes"]), number(peer["queuedBytes"]));
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(connectionOf(askServer(), "client")["held"], Value(false));

    CheckedService many("many");
    for (int i = 0; i < 1100; ++i) {
        ASSERT_NE(provide(*server, "/many/" + std::to_string(i), many), "");
    }
    description = askServer();
    EXPECT_EQ(number(description["serviceCount"]), 1101);
    EXPECT_EQ(description["services"].arraySize(), 1000U);
    for (int i = 0; i < 100; ++i) {
        ASSERT_NE(provide(*server, "/" + std::string(4000, 'x') + std::to_string(i), many), "");
    }
    const auto outcome = ask(retrieve("/"));
    EXPECT_LE(outcome->values.at(0).size(), 128U << 10U);
    EXPECT_EQ(number(parse(outcome->values.at(0))["serviceCount"]), 1201);
    server.reset();
}

TEST_F(BackendProcess, RefusesWhatItDoesNotHaveAndMakesWayForAServiceOfTheProcess)
{
    begin();
    EXPECT_EQ(ask(retrieve("/other"))->status, 404);
    const auto update = ask(Request("update", "/"));
    EXPECT_EQ(update->status, 405);
    EXPECT_THAT(update->errorText, HasSubstr("retrieve"));

    CheckedService mine("mine");
    const std::string locator = provide(*server, PATH, mine);
    ASSERT_NE(locator, "");
    settle();
    EXPECT_TRUE(asker->checker.isConnected());
    EXPECT_THAT(ask(retrieve("/echo", "mine"))->values, ElementsAre("mine"));
    EXPECT_EQ(asker->checker.connections(), 2U) << "clients learn that it is another service";
    server->unprovide(url(locator));
    mine.withdrawn();
    settle();
    EXPECT_EQ(askServer()["process"].toText(), "server");
    EXPECT_EQ(asker->checker.connections(), 3U);

    Client own(*server, LOCATOR);
    own.start();
    settle();
    EXPECT_TRUE(own.checker.isConnected()) << "also over the road inside of the process";
    own.release();
}

TEST(ProcessDescription, IsJsonWhateverNamesHave)
{
    ProcessDescription description;
    description.process = "a\"b\\c\n\xc3\xbc";
    description.runDirectory = "/run/\"\xff";
    const Value read = parse(description.toJson(1000));
    EXPECT_EQ(read["process"].toText(), description.process);
    EXPECT_EQ(read["runDirectory"].toText(), "/run/\"?") << "names of files need not be UTF-8";
}

TEST(ConnectionFacts, RequestsAreCountedAsLongAsThatIsQuick)
{
    StreamTable<StreamEntry> streams;
    for (const std::uint32_t stream : {1U, 3U, 4U}) {
        ASSERT_NE(streams.take(stream), nullptr);
    }
    streams.release(3);
    ConnectionFacts facts;
    std::size_t looks = 7;
    addOpenRequests(facts, streams, looks);
    EXPECT_EQ(facts.openRequests, 2U);
    addOpenRequests(facts, streams, looks);
    EXPECT_EQ(facts.openRequests, std::nullopt);
    EXPECT_EQ(looks, 3U);
}

} // namespace
} // namespace kesa::commadapter::test
