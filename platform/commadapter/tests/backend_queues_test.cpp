// Peers that do not take what is sent to them, and very much at once. What waits, and is never lost for being one of
// many, is in backend_holding.cpp.

#include "CarelessPeer.h"
#include "backend/connection/StreamTable.h"

namespace kesa::commadapter::test {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

/// The client's process (group 2) stands still until a test lets it go on; so nobody takes what the server sends.
class BackendQueues : public SimulatedStreams {
protected:
    BackendQueues()
    {
        faults.pipeBytes = 8U << 10U;
        network->setFaults(faults);
        begin();
    }
    /// Opens persistent streams with that policy.
    void open(std::size_t count, QueuePolicy with)
    {
        policy = with;
        for (std::size_t i = 0; i < count; ++i) {
            streams.push_back(client->request(persistent(numbered(0))));
        }
        settle();
        handlers = service.handlers();
    }
    void stop() { scheduler->pauseGroup(2); }
    void goOn()
    {
        scheduler->continueGroup(2);
        settle();
    }

    Outcomes streams;
    std::vector<CheckedService::Kept> handlers;
};

TEST_F(BackendQueues, CutStreamEndsAloneAndItsQueuedValuesAreDropped)
{
    open(2, QueuePolicy::eCUT_STREAM);
    stop();
    const int accepted = flood(*handlers[0], 1000);
    EXPECT_GT(accepted, 50);
    EXPECT_LT(accepted, 100);
    EXPECT_TRUE(handlers[0]->onNext(value("small"))) << "there would be room, but one is missing before it";
    EXPECT_EQ(service.cancels(), 0U) << "never inside `onNext`";
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_TRUE(handlers[0]->onNext(value("late")));
    EXPECT_FALSE(handlers[1]->onNext(value("fine")));
    goOn();
    const Outcome& slow = *streams[0];
    EXPECT_EQ(slow.errorText, "too slow");
    EXPECT_THAT(slow.reason, StartsWith("the client 'client (process "));
    EXPECT_THAT(slow.reason, HasSubstr("bytes wait for it, with the next 1000 more than the provider's \"comm\", "
                                       "\"send_queue_bytes\" of 65536"));
    EXPECT_THAT(traces->take(), ElementsAre(HasSubstr("[answer] '/service': a stream is cut: " + slow.reason)));
    EXPECT_THAT(server->describe(), HasSubstr(R"("cutStreams":1)"));
    EXPECT_LT(slow.values.size(), static_cast<std::size_t>(accepted));
    EXPECT_THAT(streams[1]->values, ElementsAre("fine"));

    const auto traceOfAnother = [&] {
        open(1, QueuePolicy::eCUT_STREAM);
        stop();
        flood(*handlers.back(), 1000);
        settle();
        goOn();
        EXPECT_EQ(streams.back()->status, 503);
        return traces->take();
    };
    EXPECT_THAT(traceOfAnother(), IsEmpty());
    scheduler->runFor(comm::SECOND);
    EXPECT_THAT(traceOfAnother(), ElementsAre(AllOf(HasSubstr("is cut: "), HasSubstr("; and 1 more since "))));
}

TEST_F(BackendQueues, LatestOfEachLeaveInTheOrderInWhichTheyCame)
{
    open(6, QueuePolicy::eKEEP_LATEST);
    stop();
    EXPECT_EQ(flood(*handlers[0], 1000), 1000);
    std::string order;
    for (const std::size_t i : {3U, 1U, 5U, 2U, 4U, 1U}) {
        streams[i]->onValue = [&order, i] { order += std::to_string(i); };
        EXPECT_FALSE(handlers[i]->onNext(value(numbered(0))));
    }
    handlers[5]->onCompleted();
    handlers[3]->onError(Response::createErrorResponse(500, "over"));
    EXPECT_TRUE(handlers[2]->onNext(value(std::string(settings.maxMessageBytes, 'x'))));
    goOn();
    EXPECT_EQ(order, "53214") << "what ended did not wait any longer";
    EXPECT_TRUE(streams[5]->isCompleted);
    EXPECT_EQ(streams[3]->status, 500);
    EXPECT_EQ(streams[2]->status, 413) << "behind the one that waited";
    EXPECT_EQ(service.cancels(), 1U);

    std::vector<int> numbers;
    for (const std::string& text : streams[0]->values) {
        numbers.push_back(std::stoi(text));
    }
    EXPECT_LT(numbers.size(), 100U);
    EXPECT_EQ(numbers.back(), 999) << "some are skipped, but not the last one";
    EXPECT_TRUE(std::is_sorted(numbers.begin(), numbers.end()));
}

TEST_F(BackendQueues, WhatWaitsForTheQueueRunsInOrderOnceItIsEmpty)
{
    open(1, QueuePolicy::eCUT_CONNECTION);
    std::string ran;
    peer->whenDrained([&] { ran += 'a'; });
    EXPECT_EQ(ran, "") << "never inside the call";
    settle();
    EXPECT_EQ(ran, "a");

    const auto fill = [&] {
        stop();
        EXPECT_EQ(flood(*handlers[0], 20), 20);
    };
    peer->whenDrained([&] {
        ran += 'b';
        fill();
    });
    fill();
    peer->whenDrained([&] { ran += 'c'; });
    settle();
    EXPECT_EQ(ran, "a");
    goOn();
    EXPECT_EQ(ran, "ab") << "what the one before it wrote has to leave first";
    goOn();
    EXPECT_EQ(ran, "abc");
    fill();
    peer->whenDrained([&] { ran += 'd'; });
    peer->disconnect("not wanted");
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_THAT(traces->take(), Contains(HasSubstr("is cut off: not wanted")));
    goOn();
    peer->whenDrained([&] { ran += 'e'; });
    peer->disconnect("gone already");
    settle();
    EXPECT_EQ(ran, "abc") << "dropped with the connection";
    EXPECT_EQ(client->connections(), 2U);
}

// Of which a user that is not trusted has a part.
TEST_F(BackendQueues, ProcessBoundHoldsOverAllConnections)
{
    settings.processQueueBytes = 32U << 10U;
    auto bounded = makeBackend("bounded");
    CheckedService other;
    policy = QueuePolicy::eCUT_CONNECTION;
    other.onRequest = service.onRequest;
    Client one(*clientBackend, provide(*bounded, "/service", other));
    settle();
    for (unsigned connection = 1; connection <= 3; ++connection) {
        if (connection == 3) { // the second cut has it connect as another user
            policy = QueuePolicy::eCUT_STREAM;
        }
        one.request(persistent());
        settle();
        stop();
        const int accepted = flood(*other.handlers().front(), 1000);
        const int part = connection == 3 ? 4 : 1;
        EXPECT_TRUE(accepted > 20 / part && accepted < 50 / part) << accepted;
        network->setUser(2, connection == 2 ? 1001 : 0);
        settle();
        EXPECT_EQ(other.cancels(), connection);
        goOn();
        settle();
        EXPECT_EQ(one.connections(), connection == 3 ? 3U : connection + 1);
    }
    EXPECT_THAT(traces->take(), Contains(HasSubstr("bytes wait for it and others of its user, with the next 1000 more "
                                                   "than the 8192 that the provider keeps for a user's clients")));
}

TEST_F(BackendQueues, RequestsToAPeerThatTakesNothingEnd)
{
    const Request large = retrieve("/stream", std::string(VALUE_BYTES, 'x'));
    scheduler->pauseGroup(1); // the server
    Outcomes outcomes;
    for (int i = 0; i < 100; ++i) {
        outcomes.push_back(client->request(large));
    }
    runFor(500);
    stop();
    runFor(10'000);
    scheduler->continueGroup(2);
    const auto early = client->request(large);
    settle();
    EXPECT_FALSE(early->hasEnded()) << "the client itself stood still";
    runFor(1200);
    const auto refused = client->request(large);
    const auto kept = client->request(persistent());
    settle();
    EXPECT_EQ(refused->status, 503);
    EXPECT_FALSE(outcomes.front()->hasEnded() || kept->hasEnded()) << "it would not be issued again";
    EXPECT_TRUE(client->isConnected());
    runFor(300);
    EXPECT_TRUE(outcomes.front()->status == 503 && kept->status == 503);
    EXPECT_FALSE(client->isConnected());
    scheduler->continueGroup(1);
    runFor(3000);
    EXPECT_TRUE(client->isConnected());
}

using BackendNumbers = SimulatedPair;

bool isOneTooMany(const std::shared_ptr<Outcome>& outcome)
{
    return outcome->errorText.starts_with("too many open requests: ");
}

TEST_F(BackendNumbers, OfRequestsRunOutAndComeBack)
{
    begin();
    Outcomes outcomes;
    const auto fill = [&](std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            outcomes.push_back(client->request(retrieve("/stream")));
        }
        settle();
        return countOf(outcomes, isOneTooMany);
    };
    EXPECT_EQ(fill(MAX_STREAMS + 1), 1U);
    for (std::size_t i = 0; i < 100; ++i) {
        client->cancel(*outcomes[i]);
    }
    settle(); // a number comes back when the server has ended its stream
    EXPECT_EQ(fill(101), 2U);
    for (const auto& outcome : outcomes) {
        client->cancel(*outcome);
    }
    network->cut(1, 2); // or with the connection
    runFor(3000);
    EXPECT_EQ(fill(1), 2U);
    EXPECT_FALSE(outcomes.back()->hasEnded());
}

TEST_F(BackendNumbers, AreNotKeptByAPeerThatEndsNothing)
{
    CarelessPeer careless(*network, protocol::Role::eSERVER);
    careless.listen("careless");
    clientBackend = makeBackend("client");
    Client asker(*clientBackend, "ipc://careless/service");
    settle();
    careless.machine().output.attached(1);
    careless.send();
    settle();
    for (std::uint32_t i = 0; i < MAX_STREAMS; ++i) {
        const auto outcome = asker.request(retrieve("/x"));
        scheduler->runReady();
        asker.cancel(*outcome);
        if (i % 500 == 0) {
            careless.giveRequestCredit();
            scheduler->runReady();
        }
    }
    const auto isFull = [&] {
        const auto outcome = asker.request(retrieve("/x"));
        settle();
        return isOneTooMany(outcome);
    };
    EXPECT_TRUE(isFull());
    scheduler->runFor(settings.heartbeat);
    careless.machine().output.completed(1);
    careless.send();
    settle();
    EXPECT_FALSE(isFull());
    EXPECT_TRUE(isFull()) << "it had ended one";
    EXPECT_TRUE(asker.isConnected());
    scheduler->runFor(settings.heartbeat);
    EXPECT_TRUE(isFull());
    EXPECT_FALSE(asker.isConnected()) << "it had ended none";
}

} // namespace
} // namespace kesa::commadapter::test
