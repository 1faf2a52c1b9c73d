// Peers that do not take what is sent to them, and very much at once. What waits, and is never lost for being one of
// many, is in backend_holding_test.cpp.

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

TEST_F(BackendQueues, ACutStreamSaysWhyAndFillsNoLog)
{
    const auto cutAnother = [&] {
        open(1, QueuePolicy::eCUT_STREAM);
        stop();
        flood(*handlers.back(), 1000);
        EXPECT_EQ(service.cancels(), streams.size() - 1) << "never inside `onNext`";
        settle();
        goOn();
        EXPECT_EQ(streams.back()->errorText, "too slow");
        return traces->take();
    };
    const auto traced = cutAnother();
    const std::string& reason = streams.back()->reason;
    EXPECT_THAT(reason, StartsWith("the client 'client (process "));
    EXPECT_THAT(reason, HasSubstr("bytes wait for it, with the next 1000 more than the provider's \"comm\", "
                                  "\"send_queue_bytes\" of 65536"));
    EXPECT_THAT(traced, ElementsAre(HasSubstr("[answer] '/service': a stream is cut: " + reason)));
    EXPECT_THAT(server->describe(), HasSubstr(R"("cutStreams":1)"));
    EXPECT_THAT(cutAnother(), IsEmpty());
    scheduler->runFor(comm::SECOND);
    EXPECT_THAT(cutAnother(), ElementsAre(AllOf(HasSubstr("is cut: "), HasSubstr("; and 1 more since "))));
}

TEST_F(BackendQueues, LatestOfEachLeaveInTheOrderInWhichTheyCame)
{
    open(4, QueuePolicy::eKEEP_LATEST);
    stop();
    flood(*handlers[0], 1000);
    std::string order;
    for (const std::size_t i : {3U, 1U, 2U, 1U}) {
        streams[i]->onValue = [&order, i] { order += std::to_string(i); };
        EXPECT_FALSE(handlers[i]->onNext(value(numbered(0))));
    }
    EXPECT_TRUE(handlers[2]->onNext(value(std::string(settings.maxMessageBytes, 'x'))));
    goOn();
    EXPECT_EQ(order, "231") << "what is over does not wait any longer";
    EXPECT_EQ(streams[2]->status, 413) << "behind the one that waited";
}

TEST_F(BackendQueues, AServiceMayEndTheConnection)
{
    open(1, QueuePolicy::eCUT_STREAM);
    peer->disconnect("not wanted");
    EXPECT_EQ(service.cancels(), 0U) << "never inside the call";
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_THAT(traces->take(), Contains(HasSubstr("is cut off: not wanted")));
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
