// What a process says of itself when it is asked at "/.well-known/process", and what it tells its own user. That all
// members are there and true is in the sessions of `kesactl status`.

#include "backend_support.h"

#include "backend/ProcessDescription.h"
#include "backend/ProcessService.h"
#include "backend/connection/StreamTable.h"

#include <util/config/JSONParser.h>

namespace kesa::commadapter::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using util::config::Value;

const std::string PATH(ProcessService::PATH);

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
        asker = std::make_unique<Client>(*askingBackend, "ipc://server" + PATH);
        settle();
        ASSERT_TRUE(asker->isConnected());
    }
    ~BackendProcess() override { asker.reset(); }
    Outcome ask(const Request& request)
    {
        const auto outcome = asker->request(request);
        settle();
        EXPECT_TRUE(outcome->hasEnded());
        return *outcome;
    }
    Value askServer() { return parse(ask(retrieve("/")).values.at(0)); }
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

TEST_F(BackendProcess, SaysWhyItIsNotConnected)
{
    begin();
    kill(server, 1);
    settle();
    const Value own = parse(clientBackend->describe());
    EXPECT_EQ(own["realm"].toText() + own["services"].toText(), "[]") << "it does not listen";
    const Value missing = connectionOf(own, "server");
    EXPECT_EQ(missing["openedBy"].toText(), "self");
    EXPECT_EQ(missing["connected"], Value(false));
    EXPECT_EQ(missing["reason"].toText(), "nobody listens");
    client->release();
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
    EXPECT_GE(number(description["queuedBytes"]), number(peer["queuedBytes"]));
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(connectionOf(askServer(), "client")["held"], Value(false));

    CheckedService many;
    for (int i = 0; i < 1100; ++i) {
        ASSERT_NE(provide(*server, "/many/" + std::to_string(i), many), "");
    }
    description = askServer();
    EXPECT_EQ(number(description["serviceCount"]), 1101);
    EXPECT_EQ(description["services"].arraySize(), 1000U);
    for (int i = 0; i < 100; ++i) {
        ASSERT_NE(provide(*server, "/" + std::string(4000, 'x') + std::to_string(i), many), "");
    }
    const std::string text = ask(retrieve("/")).values.at(0);
    EXPECT_LE(text.size(), 128U << 10U);
    EXPECT_EQ(number(parse(text)["serviceCount"]), 1201);
    server.reset();
}

TEST_F(BackendProcess, RefusesWhatItDoesNotHaveAndMakesWayForAServiceOfTheProcess)
{
    begin();
    EXPECT_EQ(ask(retrieve("/other")).status, 404);
    const Outcome update = ask(Request("update", "/"));
    EXPECT_EQ(update.status, 405);
    EXPECT_THAT(update.errorText, HasSubstr("retrieve"));

    CheckedService mine;
    const std::string mineAt = provide(*server, PATH, mine);
    ASSERT_NE(mineAt, "");
    settle();
    EXPECT_THAT(ask(retrieve("/echo", "mine")).values, ElementsAre("mine"));
    EXPECT_EQ(asker->connections(), 2U) << "clients learn that it is another service";
    server->unprovide(url(mineAt));
    mine.withdrawn();
    settle();
    EXPECT_EQ(askServer()["process"].toText(), "server");
    EXPECT_EQ(asker->connections(), 3U);

    const Client own(*server, "ipc://server" + PATH);
    settle();
    EXPECT_TRUE(own.isConnected()) << "also over the road inside of the process";
}

TEST_F(BackendProcess, EachMayAskWhatHeMay)
{
    setRules(R"([{"user": 65533, "may": ["retrieve"], "paths": ["/service"]},
                 {"user": 65533, "may": "*", "paths": ["/service/echo"]}])");
    network->setUser(3, 65533);
    begin();
    EXPECT_THAT(traces->take(), testing::IsEmpty()) << "more services may come";
    runFor(1000);
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("rule 2 of the table fits no service")));
    const auto may = [&](const std::string& body) {
        const Outcome outcome = ask(retrieve("/may", body));
        return outcome.status == 0 ? outcome.values.at(0) : std::to_string(outcome.status);
    };
    EXPECT_THAT(may(R"({"who":"65533","path":"/service","command":"update","resource":"/echo"})"),
                HasSubstr(R"("allowed":false,"because":"no rule of the table lets user 65533 update \"/echo\")"));
    EXPECT_THAT(may(R"({"who":"asker","path":"/service","command":"retrieve"})"), HasSubstr(R"("allowed":true)"));
    for (const char* const who : {"65532", "root", "server"}) {
        EXPECT_EQ(may(std::string(R"({"who":")") + who + R"(","path":"/service","command":"update"})"), "403");
    }
    EXPECT_EQ(may(R"({"who":"65533","path":"no path","command":"update"})"), "400");
    EXPECT_EQ(may(R"({"who":"65533","path":"/not/provided","command":"update"})"), "404");
    EXPECT_EQ(may("[7]"), "400");
    EXPECT_EQ(may('[' + std::string(10'000, ' ') + ']'), "413") << "read before it is known who asks";
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

TEST(StreamTable, HasNumbersThatThePeerChose)
{
    StreamTable<StreamEntry> streams;
    StreamList order;
    for (const std::uint32_t stream : {1U, MAX_STREAMS, 3U, 65U}) {
        ASSERT_NE(streams.take(stream), nullptr);
        streams.append(order, stream);
    }
    for (const std::uint32_t stream : {0U, 3U, MAX_STREAMS + 1}) {
        EXPECT_EQ(streams.take(stream), nullptr);
    }
    EXPECT_TRUE(streams.parts() == 3 && !streams.needsPart(64) && streams.needsPart(129));
    streams.remove(order, MAX_STREAMS);
    streams.release(MAX_STREAMS);
    EXPECT_TRUE(streams.find(MAX_STREAMS) == nullptr && streams.find(64) == nullptr && streams.find(0) == nullptr);
    EXPECT_EQ(streams.parts(), 3U) << "the one emptied last stays";
    EXPECT_EQ(streams.countTaken(), 3U);
    EXPECT_TRUE(streams.find(1)->next == 3 && streams.find(3)->next == 65 && order.last == 65);
    streams.release(65);
    EXPECT_EQ(streams.parts(), 2U);
}

} // namespace
} // namespace kesa::commadapter::test
