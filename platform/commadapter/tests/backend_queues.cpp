// Peers that do not take what is sent to them, and very much at once.

#include "CarelessPeer.h"
#include "backend/StreamTable.h"
#include "backend_support.h"

#include <kesa/RequestContext.h>

#include <gtest/gtest.h>

namespace kesa::commadapter::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr std::size_t BODY_SIZE = 1000;

/// The client's process (group 2) stands still until a test lets it go on; so nobody takes what the server sends.
class BackendQueues : public SimulatedPair {
protected:
    BackendQueues()
    {
        settings.heartbeat = comm::SECOND;
        settings.sendQueueBytes = 64U << 10U;
        transport::MemoryNetwork::Faults faults;
        faults.pipeBytes = 8U << 10U;
        network->setFaults(faults);
        service.onRequest = [this](const Request&) { setPolicy(); };
        begin();
    }
    static std::string numbered(int number)
    {
        std::string text = std::to_string(number);
        text.resize(BODY_SIZE, ' ');
        return text;
    }
    static Request persistent()
    {
        Request request = retrieve("/stream", numbered(0));
        request.setHeader("$response-semantic", "persistent-stream");
        return request;
    }
    static int numberOf(const std::string& text) { return std::stoi(text); }
    void setPolicy()
    {
        const RequestContext* const context = RequestContext::current();
        ASSERT_TRUE(context != nullptr && context->stream != nullptr);
        context->stream->setQueuePolicy(policy);
        peer = context->peer;
    }
    /// Sends numbered values until one is refused or `most` have gone; answers how many were accepted.
    static int flood(IResponseHandler<Response>& handler, int most)
    {
        int sent = 0;
        while (sent < most && !handler.onNext(value(numbered(sent)))) {
            ++sent;
        }
        return sent;
    }

    QueuePolicy policy = QueuePolicy::eCUT_STREAM; ///< of the next request
    std::shared_ptr<IPeer> peer;                   ///< of the last one
};

TEST_F(BackendQueues, CutStreamEndsAloneAndItsQueuedValuesAreDropped)
{
    const auto slow = client->request(persistent());
    const auto other = client->request(persistent());
    settle();
    const auto handlers = service.handlers();
    scheduler->pauseGroup(2);
    const int accepted = flood(*handlers[0], 1000);
    EXPECT_GT(accepted, 50);
    EXPECT_LT(accepted, 100);
    EXPECT_TRUE(handlers[0]->onNext(value("small"))) << "there would be room, but one is missing before it";
    EXPECT_EQ(service.cancels(), 0U) << "never inside `onNext`";
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_TRUE(handlers[0]->onNext(value("late")));
    EXPECT_FALSE(handlers[1]->onNext(value("fine")));
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(slow->status, 503);
    EXPECT_EQ(slow->errorText, "too slow");
    EXPECT_THAT(slow->reason, StartsWith("the client 'client (process "));
    EXPECT_THAT(slow->reason, HasSubstr("bytes wait for it, with the next 1000 more than the provider's \"comm\", "
                                        "\"send_queue_bytes\" of 65536"));
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("[answer] '/service': a stream is cut: " + slow->reason)));
    EXPECT_THAT(server->describe(), HasSubstr(R"("cutStreams":1)"));
    EXPECT_LT(slow->values.size(), static_cast<std::size_t>(accepted));
    EXPECT_THAT(other->values, ElementsAre("fine"));
    EXPECT_TRUE(client->checker.isConnected());

    const auto traceOfAnother = [&] {
        const auto another = client->request(persistent());
        settle();
        scheduler->pauseGroup(2);
        flood(*service.handlers().back(), 1000);
        settle();
        scheduler->continueGroup(2);
        settle();
        EXPECT_EQ(another->status, 503);
        return traces->take();
    };
    EXPECT_THAT(traceOfAnother(), IsEmpty());
    scheduler->runFor(comm::SECOND);
    EXPECT_THAT(traceOfAnother(), ElementsAre(AllOf(HasSubstr("is cut: "), HasSubstr("; and 1 more since "))));
}

TEST_F(BackendQueues, KeepLatestSkipsValuesButNotTheLastOne)
{
    policy = QueuePolicy::eKEEP_LATEST;
    const auto stream = client->request(persistent());
    settle();
    const auto handler = service.take();
    scheduler->pauseGroup(2);
    EXPECT_EQ(flood(*handler, 1000), 1000);
    settle();
    scheduler->continueGroup(2);
    settle();
    ASSERT_FALSE(stream->values.empty());
    EXPECT_LT(stream->values.size(), 100U);
    EXPECT_EQ(numberOf(stream->values.back()), 999);
    for (std::size_t i = 1; i < stream->values.size(); ++i) {
        EXPECT_LT(numberOf(stream->values[i - 1]), numberOf(stream->values[i]));
    }
}

TEST_F(BackendQueues, LatestOfManyLeaveInTheOrderInWhichTheyCame)
{
    policy = QueuePolicy::eKEEP_LATEST;
    std::vector<std::shared_ptr<Outcome>> streams;
    for (int i = 0; i < 6; ++i) {
        streams.push_back(client->request(persistent()));
    }
    settle();
    const auto handlers = service.handlers();
    scheduler->pauseGroup(2);
    flood(*handlers[0], 200);
    std::vector<std::string> heard;
    for (const std::size_t i : {3U, 1U, 5U, 2U, 4U, 1U}) {
        streams[i]->onValue = [&heard, stream = streams[i].get()] { heard.push_back(stream->values.back()); };
        std::string text(BODY_SIZE, ' ');
        text.replace(0, 1, std::to_string(i));
        EXPECT_FALSE(handlers[i]->onNext(value(std::string(text))));
    }
    handlers[5]->onCompleted();
    handlers[3]->onError(Response::createErrorResponse(500, "over"));
    scheduler->continueGroup(2);
    settle();
    std::string order;
    for (const std::string& text : heard) {
        order += text.front();
    }
    EXPECT_EQ(order, "53124") << "what ended did not wait any longer";
    EXPECT_TRUE(streams[5]->isCompleted);
    EXPECT_EQ(streams[3]->status, 500);
    EXPECT_EQ(numberOf(streams[0]->values.back()), 199);
}

TEST_F(BackendQueues, LatestThatIsTooLargeEndsItsStreamAfterTheOneThatWaited)
{
    policy = QueuePolicy::eKEEP_LATEST;
    const auto stream = client->request(persistent());
    settle();
    const auto handler = service.handlers().front();
    scheduler->pauseGroup(2);
    EXPECT_EQ(flood(*handler, 1000), 1000);
    EXPECT_TRUE(handler->onNext(value(std::string(settings.maxMessageBytes, 'x'))));
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(numberOf(stream->values.back()), 999);
    EXPECT_EQ(stream->status, 413);
}

TEST_F(BackendQueues, CutConnectionLosesNothingAndGivesUpWhoTakesNothing)
{
    policy = QueuePolicy::eCUT_CONNECTION;
    const auto stream = client->request(persistent());
    settle();
    const auto handler = service.handlers().front();
    EXPECT_EQ(flood(*handler, 1000), 1000) << "over the bound, but the client may be about to take it";
    settle();
    EXPECT_THAT(stream->values, SizeIs(1000));

    scheduler->pauseGroup(2);
    EXPECT_EQ(flood(*handler, 1000), 1000);
    scheduler->runFor(500 * comm::MILLISECOND);
    scheduler->pauseGroup(1);
    scheduler->runFor(10 * comm::SECOND);
    scheduler->continueGroup(1);
    EXPECT_EQ(flood(*handler, 10), 10) << "the server itself stood still";
    scheduler->runFor(500 * comm::MILLISECOND);
    scheduler->continueGroup(2);
    settle();
    EXPECT_THAT(stream->values, SizeIs(2010));
    EXPECT_EQ(client->checker.connections(), 1U);

    scheduler->pauseGroup(2);
    EXPECT_EQ(flood(*handler, 1000), 1000);
    scheduler->runFor(900 * comm::MILLISECOND);
    EXPECT_EQ(flood(*handler, 10), 10);
    scheduler->runFor(400 * comm::MILLISECOND);
    EXPECT_EQ(service.cancels(), 1U) << "nothing was taken for a heartbeat";
    EXPECT_TRUE(handler->onNext(value("late")));
    EXPECT_THAT(traces->take(), Contains(HasSubstr("does not take what is sent to it")));
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(stream->status, 503);
    EXPECT_EQ(client->checker.connections(), 2U);
}

TEST_F(BackendQueues, WhatWaitsForTheQueueRunsInOrderOnceItIsEmpty)
{
    client->request(retrieve("/stream"));
    settle();
    const auto handler = service.handlers().front();
    std::string ran;
    peer->whenDrained([&] { ran += 'a'; });
    EXPECT_EQ(ran, "") << "never inside the call";
    settle();
    EXPECT_EQ(ran, "a");

    scheduler->pauseGroup(2);
    const auto fill = [&] { EXPECT_EQ(flood(*handler, 20), 20); };
    peer->whenDrained([&] {
        ran += 'b';
        fill();
        scheduler->pauseGroup(2);
    });
    fill();
    peer->whenDrained([&] { ran += 'c'; });
    settle();
    EXPECT_EQ(ran, "a");
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(ran, "ab") << "what the one before it wrote has to leave first";
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(ran, "abc");
    scheduler->pauseGroup(2);
    fill();
    peer->whenDrained([&] { ran += 'd'; });
    peer->disconnect("not wanted");
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_THAT(traces->take(), Contains(HasSubstr("is cut off: not wanted")));
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(ran, "abc") << "dropped with the connection";
    EXPECT_EQ(client->checker.connections(), 2U);
    peer->whenDrained([&] { ran += 'e'; });
    peer->disconnect("gone already");
    settle();
    EXPECT_EQ(ran, "abc");
    EXPECT_EQ(client->checker.connections(), 2U);
}

TEST_F(BackendQueues, ProcessBoundHoldsOverAllConnections)
{
    settings.processQueueBytes = 32U << 10U;
    auto bounded = makeBackend("bounded");
    CheckedService other("other");
    policy = QueuePolicy::eCUT_CONNECTION;
    other.onRequest = service.onRequest;
    Client one(*clientBackend, provide(*bounded, "/service", other));
    one.start();
    settle();
    for (unsigned connection = 1; connection <= 3; ++connection) {
        one.request(persistent());
        settle();
        scheduler->pauseGroup(2);
        const int accepted = flood(*other.handlers().front(), 1000);
        EXPECT_TRUE(accepted > 20 && accepted < 50) << accepted;
        settle();
        EXPECT_EQ(other.cancels(), connection);
        scheduler->continueGroup(2);
        settle();
        EXPECT_EQ(one.checker.connections(), connection + 1);
    }
    one.release();
}

/// A process that comes back: all it holds and follows at once, many times what a queue may hold on either side.
TEST_F(BackendQueues, TenThousandPersistentRequestsAtOnceTripNothing)
{
    settings.processQueueBytes = 1U << 20U;
    auto announcer = makeBackend("announcer");
    Client all(*announcer, "ipc://server/service");
    all.start();
    settle();
    policy = QueuePolicy::eCUT_CONNECTION;
    std::vector<std::shared_ptr<Outcome>> outcomes;
    for (int i = 0; i < 10'000; ++i) {
        outcomes.push_back(all.request(persistent()));
    }
    EXPECT_TRUE(timeUntil([&] { return service.open() == 10'000; }) < comm::SECOND);
    for (const auto& handler : service.handlers()) {
        EXPECT_FALSE(handler->onNext(value(numbered(1))));
        EXPECT_FALSE(handler->onNext(value(numbered(2))));
    }
    outcomes.push_back(all.request(persistent()));
    scheduler->runFor(comm::SECOND);
    EXPECT_EQ(service.open(), 10'001U);
    EXPECT_EQ(std::count_if(outcomes.begin(), outcomes.end(), [](const auto& o) { return o->values.size() == 2; }),
              10'000);
    EXPECT_EQ(all.checker.connections(), 1U);

    all.release();
    scheduler->runFor(10 * comm::SECOND);
    EXPECT_EQ(service.open(), 0U);
    for (const auto& outcome : outcomes) {
        ASSERT_EQ(outcome->status, 503);
        ASSERT_TRUE(outcome->isDestroyed);
    }
}

TEST_F(BackendQueues, RequestsToAPeerThatTakesNothingEnd)
{
    scheduler->pauseGroup(1); // the server
    std::vector<std::shared_ptr<Outcome>> outcomes;
    for (int i = 0; i < 100; ++i) {
        outcomes.push_back(client->request(retrieve("/stream", std::string(BODY_SIZE, 'x'))));
    }
    scheduler->runFor(500 * comm::MILLISECOND);
    scheduler->pauseGroup(2);
    scheduler->runFor(10 * comm::SECOND);
    scheduler->continueGroup(2);
    const auto early = client->request(retrieve("/stream", std::string(BODY_SIZE, 'x')));
    settle();
    EXPECT_FALSE(early->hasEnded()) << "the client itself stood still";
    scheduler->runFor(1200 * comm::MILLISECOND);
    const auto refused = client->request(retrieve("/stream", std::string(BODY_SIZE, 'x')));
    const auto kept = client->request(persistent());
    settle();
    EXPECT_EQ(refused->status, 503);
    EXPECT_FALSE(outcomes.front()->hasEnded() || kept->hasEnded()) << "it would not be issued again";
    EXPECT_TRUE(client->checker.isConnected());
    scheduler->runFor(300 * comm::MILLISECOND);
    EXPECT_EQ(outcomes.front()->status, 503);
    EXPECT_EQ(kept->status, 503);
    EXPECT_FALSE(client->checker.isConnected());
    scheduler->continueGroup(1);
    scheduler->runFor(3 * comm::SECOND);
    EXPECT_TRUE(client->checker.isConnected());
}

TEST_F(BackendQueues, RequestsThatWaitForOthersRefuseNobody)
{
    settings.processQueueBytes = 32U << 10U;
    auto asker = makeBackend("asker");
    auto healthy = makeBackend("healthy");
    CheckedService other("other");
    Client toStopped(*asker, "ipc://server/service");
    Client toHealthy(*asker, provide(*healthy, "/other", other));
    toStopped.start();
    toHealthy.start();
    settle();
    scheduler->pauseGroup(1); // the server
    std::vector<std::shared_ptr<Outcome>> waiting;
    for (int i = 0; i < 50; ++i) {
        waiting.push_back(toStopped.request(retrieve("/echo", std::string(BODY_SIZE, 'x'))));
    }
    const auto answered = toHealthy.request(retrieve("/echo", "x"));
    settle();
    EXPECT_THAT(answered->values, ElementsAre("x"));
    scheduler->continueGroup(1);
    settle();
    EXPECT_TRUE(std::all_of(waiting.begin(), waiting.end(), [](const auto& o) { return o->isCompleted; }));
    toStopped.release();
    toHealthy.release();
}

using BackendNumbers = SimulatedPair;

TEST_F(BackendNumbers, OfRequestsRunOutAndComeBack)
{
    begin();
    std::vector<std::shared_ptr<Outcome>> outcomes;
    const auto fill = [&](std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            outcomes.push_back(client->request(retrieve("/stream")));
        }
        settle();
        return std::count_if(outcomes.begin(), outcomes.end(),
                             [](const auto& o) { return o->errorText == "too many open requests"; });
    };
    EXPECT_EQ(fill(MAX_STREAMS + 1), 1);
    for (std::size_t i = 0; i < 100; ++i) {
        client->cancel(*outcomes[i]);
    }
    settle(); // a number comes back when the server has ended its stream
    EXPECT_EQ(fill(101), 2);
    for (const auto& outcome : outcomes) {
        client->cancel(*outcome);
    }
    network->cut(1, 2); // or with the connection
    scheduler->runFor(3 * comm::SECOND);
    EXPECT_EQ(fill(1), 2);
    EXPECT_FALSE(outcomes.back()->hasEnded());
}

TEST_F(BackendNumbers, AreNotKeptByAPeerThatEndsNothing)
{
    CarelessPeer careless(*network, protocol::Machine::Role::eSERVER);
    careless.listen("careless");
    clientBackend = makeBackend("client");
    Client asker(*clientBackend, "ipc://careless/service");
    asker.start();
    settle();
    careless.machine().attached(1);
    careless.send();
    settle();
    for (std::uint32_t i = 0; i < MAX_STREAMS; ++i) {
        const auto outcome = asker.request(retrieve("/x"));
        scheduler->runReady();
        asker.cancel(*outcome);
    }
    const auto isFull = [&] {
        const auto outcome = asker.request(retrieve("/x"));
        settle();
        return outcome->errorText == "too many open requests";
    };
    EXPECT_TRUE(isFull());
    scheduler->runFor(settings.heartbeat);
    careless.machine().completed(1);
    careless.send();
    settle();
    EXPECT_FALSE(isFull());
    EXPECT_TRUE(isFull()) << "it had ended one";
    EXPECT_TRUE(asker.checker.isConnected());
    scheduler->runFor(settings.heartbeat);
    EXPECT_TRUE(isFull());
    EXPECT_FALSE(asker.checker.isConnected()) << "it had ended none";
    asker.release();
}

} // namespace
} // namespace kesa::commadapter::test
