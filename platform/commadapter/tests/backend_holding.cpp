// A server whose answers are not taken reads no further request of that client: none is lost for being one of many, and
// what both sides keep is bounded. A client that stands still is one whose process (group 2) is paused.

#include "backend_support.h"

#include <kesa/RequestContext.h>

#include <gtest/gtest.h>

namespace kesa::commadapter::test {
namespace {

using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;

constexpr std::size_t BODY = 1000;
constexpr std::size_t QUEUE = 64U << 10U;
constexpr std::size_t PIPE = 8U << 10U;
/// How many answers fill queue and pipe.
const auto ABOUT_A_QUEUE = AllOf(Ge(QUEUE / (BODY + 100)), Le((QUEUE + PIPE) / BODY + 1));

/// Answers on the loop, at once.
class Answerer final : public IKesaApi {
public:
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        EXPECT_TRUE(!isOfOne || std::stoul(std::string(request.getPayload().text())) == asked) << "out of order";
        ++asked;
        if (RequestContext::current() != nullptr) {
            peer = RequestContext::current()->peer;
        }
        refused += handler->onNext(value(std::string(BODY, 'x'))) ? 1U : 0U;
        handler->onCompleted();
        return this;
    }
    void cancel(void* /*handle*/) override { ADD_FAILURE() << "it has answered"; }

    bool isOfOne = true; ///< client, whose calls are numbered
    std::size_t asked = 0;
    std::size_t refused = 0; ///< answers that were not accepted
    std::shared_ptr<IPeer> peer;
};

class BackendHolding : public SimulatedPair {
protected:
    BackendHolding()
    {
        settings.heartbeat = comm::SECOND;
        settings.sendQueueBytes = QUEUE;
        faults.pipeBytes = PIPE;
        network->setFaults(faults);
    }
    void begin()
    {
        SimulatedPair::begin();
        locator = provide(*server, "/answers", answers);
        asker = std::make_unique<Client>(*clientBackend, locator);
        asker->start();
        settle();
        ASSERT_TRUE(asker->checker.isConnected());
    }
    void ask(Client& by, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            outcomes.push_back(by.request(retrieve("/", std::to_string(i))));
        }
    }
    /// The client stands still with `count` calls open, and the server has stopped reading.
    void askAndStandStill(std::size_t count)
    {
        ask(*asker, count);
        scheduler->pauseGroup(2);
        settle();
        EXPECT_THAT(answers.asked, ABOUT_A_QUEUE);
    }
    std::size_t answered() const
    {
        return static_cast<std::size_t>(std::count_if(outcomes.begin(), outcomes.end(), [](const auto& outcome) {
            return outcome->isCompleted && outcome->values.size() == 1 && outcome->values.front().size() == BODY;
        }));
    }
    std::size_t ended() const
    {
        return static_cast<std::size_t>(
            std::count_if(outcomes.begin(), outcomes.end(), [](const auto& outcome) { return outcome->hasEnded(); }));
    }
    static Request persistent()
    {
        Request request = retrieve("/stream");
        request.setHeader("$response-semantic", "persistent-stream");
        return request;
    }

    transport::MemoryNetwork::Faults faults;
    Answerer answers;
    std::string locator;
    std::unique_ptr<Client> asker;
    std::vector<std::shared_ptr<Outcome>> outcomes; ///< of the calls
};

TEST_F(BackendHolding, CallsOfAClientThatStandsStillWaitAsLongAsItTakes)
{
    begin();
    askAndStandStill(1000);
    const std::size_t asked = answers.asked;
    scheduler->runFor(100 * comm::SECOND);
    EXPECT_EQ(answers.asked, asked);
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(answered(), 1000U);
    EXPECT_EQ(answers.refused, 0U);
    EXPECT_EQ(asker->checker.connections(), 1U);

    answers.asked = 0;
    askAndStandStill(1000);
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(answered(), 2000U) << "and again";
}

TEST_F(BackendHolding, LocalCallsAreHeldAlike)
{
    begin();
    Answerer local;
    Client own(*clientBackend, provide(*clientBackend, "/local", local));
    own.start();
    settle();
    ask(own, 5000);
    settle();
    EXPECT_EQ(answered(), 5000U);
    own.release();
}

TEST_F(BackendHolding, ProcessesThatAskEachOtherDoNotWaitForEachOther)
{
    begin();
    Answerer theirs;
    Client back(*server, provide(*clientBackend, "/theirs", theirs));
    back.start();
    settle();
    for (int round = 0; round < 3; ++round) {
        answers.asked = theirs.asked = 0;
        ask(*asker, 1000);
        ask(back, 1000);
        settle();
        EXPECT_EQ(answered(), outcomes.size());
    }
    back.release();
}

TEST_F(BackendHolding, CancelsAndWithdrawalsMeetEachCallOnce)
{
    begin();
    askAndStandStill(200);
    for (std::size_t i = 1; i < outcomes.size(); i += 2) {
        asker->cancel(*outcomes[i]);
    }
    server->unprovide(url(locator));
    scheduler->continueGroup(2);
    settle();
    const std::size_t before = answers.asked;
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
        if (i % 2 == 0) {
            EXPECT_TRUE(i < before ? outcomes[i]->isCompleted : outcomes[i]->status == 503) << i;
        }
        EXPECT_TRUE(outcomes[i]->isDestroyed) << i;
    }
    EXPECT_FALSE(asker->checker.isConnected());
    EXPECT_TRUE(client->checker.isConnected()) << "over the same connection, another path";
}

TEST_F(BackendHolding, AClientObjectMayGoMeanwhile)
{
    begin();
    askAndStandStill(200);
    asker->release();
    const auto other = client->request(retrieve("/echo", "x"));
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(ended(), 200U);
    EXPECT_EQ(answers.asked, 200U) << "they had been sent before";
    EXPECT_THAT(other->values, testing::ElementsAre("x"));
    EXPECT_EQ(client->checker.connections(), 1U);
}

class BackendHoldingEnd : public BackendHolding, public testing::WithParamInterface<unsigned> {};

TEST_P(BackendHoldingEnd, WhatTheDeadClientHadSentIsHandledAndNoAnswerKept)
{
    faults.heldOpenPercent = GetParam();
    faults.draw = [](std::uint64_t) { return 0; };
    network->setFaults(faults);
    begin();
    askAndStandStill(1000);
    const std::size_t before = answers.asked;
    kill(clientBackend, 2);
    settle();
    EXPECT_GT(answers.asked, before + 50);
    EXPECT_EQ(answers.refused, answers.asked - before);
    EXPECT_THAT(traces->take(), IsEmpty()) << "it is not cut off, but has ended";
    bool isAlive = true;
    answers.peer->proveAlive(comm::SECOND, [&](bool lives) { isAlive = lives; });
    settle();
    EXPECT_FALSE(isAlive);
    asker->forgetBackend();
    client->forgetBackend();
}

INSTANTIATE_TEST_SUITE_P(HeldOpenByAChild, BackendHoldingEnd, testing::Values(0U, 100U));

TEST_F(BackendHolding, StreamsAreJudgedByTheirOwnValuesOnly)
{
    begin();
    const auto stream = client->request(persistent());
    settle();
    const auto handler = service.handlers().front();
    askAndStandStill(200);
    int sent = 0;
    while (sent < 1000 && !handler->onNext(value(std::string(BODY, 'y')))) {
        ++sent;
    }
    EXPECT_THAT(static_cast<std::size_t>(sent), ABOUT_A_QUEUE) << "the queue is full of answers, but not of values";
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(stream->errorText, "too slow");
    EXPECT_EQ(answered(), 200U);
}

TEST_F(BackendHolding, StreamsThatDoNotSayTheyLastAreBoundedTogether)
{
    constexpr std::size_t STREAMS = 20;
    settings.processQueueBytes = 4 * QUEUE;
    begin();
    for (std::size_t i = 0; i <= STREAMS; ++i) {
        outcomes.push_back(client->request(retrieve("/stream")));
    }
    settle();
    const auto handlers = service.handlers();
    scheduler->pauseGroup(2);
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < 1000 * STREAMS; ++i) {
        bytes += handlers[i % STREAMS]->onNext(value(std::string(BODY, 'y'))) ? 0 : BODY;
    }
    // Whoever is over drops what it had queued, so the next one gets further.
    EXPECT_THAT(bytes, AllOf(Ge(4 * QUEUE - STREAMS * BODY), Le(20 * QUEUE)));
    EXPECT_FALSE(handlers[STREAMS]->onNext(value(std::string(BODY, 'x')))) << "an answer, whatever else is queued";
    handlers[STREAMS]->onCompleted();
    settle();
    EXPECT_EQ(service.cancels(), STREAMS);
    scheduler->continueGroup(2);
    settle();
    EXPECT_EQ(outcomes.front()->errorText, "too slow");
    EXPECT_THAT(outcomes.front()->reason, HasSubstr("bytes wait for it, with the next "));
    EXPECT_EQ(answered(), 1U);
    EXPECT_EQ(client->checker.connections(), 1U);
}

TEST_F(BackendHolding, WhoStandsStillNeitherStopsNorCutsOthers)
{
    settings.sendQueueBytes = 3 * QUEUE;
    settings.processQueueBytes = 2 * QUEUE;
    answers.isOfOne = false;
    begin();
    std::vector<std::unique_ptr<IBackend>> backends;
    std::vector<std::unique_ptr<Client>> stopped;
    for (int i = 0; i < 4; ++i) {
        backends.push_back(makeBackend("stopped" + std::to_string(i)));
        stopped.push_back(std::make_unique<Client>(*backends.back(), locator));
        stopped.back()->start();
        settle();
        answers.asked = 0;
        ask(*stopped.back(), 200);
        scheduler->pauseGroup(lastGroup);
        settle();
        EXPECT_TRUE(i == 0 || testing::Value(answers.asked, ABOUT_A_QUEUE)) << answers.asked;
    }
    const auto stream = client->request(persistent());
    settle();
    answers.asked = 0;
    outcomes.clear();
    ask(*asker, 1000);
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(service.handlers().front()->onNext(value("y")));
        settle();
    }
    EXPECT_EQ(answered(), 1000U);
    EXPECT_EQ(stream->values.size(), 100U);
    EXPECT_EQ(client->checker.connections(), 1U);
    for (std::uint64_t group = 3; group <= lastGroup; ++group) {
        scheduler->continueGroup(group);
    }
    settle();
    stopped.clear();
}

/// Bytes need 400 ms, so the client takes about a pipe in that time and the server is held for longer than a heartbeat.
class BackendHoldingSlowly : public BackendHolding {
protected:
    BackendHoldingSlowly()
    {
        begin();
        client->request(persistent());
        settle();
        faults.draw = [](std::uint64_t bound) { return bound - 1; };
        faults.longestDelay = 400 * comm::MILLISECOND;
        network->setFaults(faults);
        ask(*asker, 4000);
        scheduler->runFor(3 * comm::SECOND);
    }
};

TEST_F(BackendHoldingSlowly, TheClientTakesTheServersSilenceForNoFault)
{
    // More than its bound waits at the client, and nothing of it has moved for a heartbeat.
    const auto kept = client->request(persistent());
    for (int i = 0; i < 100; ++i) {
        ask(*asker, 1);
        scheduler->runFor(100 * comm::MILLISECOND);
    }
    EXPECT_EQ(std::count_if(outcomes.begin(), outcomes.end(), [](const auto& o) { return o->status != 0; }), 0);
    EXPECT_FALSE(kept->hasEnded());
    EXPECT_GT(answered(), 0U);
    EXPECT_EQ(asker->checker.connections(), 1U);
}

TEST_F(BackendHoldingSlowly, AProbedClientThatTakesWhatIsQueuedIsNotCutOff)
{
    const auto stream = service.handlers().front();
    EXPECT_FALSE(stream->onNext(value(std::string(BODY, 'y'))));
    scheduler->pauseGroup(2);
    scheduler->runFor(1500 * comm::MILLISECOND);
    scheduler->continueGroup(2);
    for (int i = 0; i < 30; ++i) { // it is held for longer than its answer to the probe takes
        for (int k = 0; k < 7; ++k) {
            EXPECT_FALSE(stream->onNext(value(std::string(BODY, 'y'))));
        }
        scheduler->runFor(400 * comm::MILLISECOND);
    }
    EXPECT_EQ(asker->checker.connections(), 1U);
}

TEST_F(BackendHoldingSlowly, TheClientProvesThatItLivesOnceItIsReadAgain)
{
    bool isAlive = false;
    answers.peer->proveAlive(comm::SECOND, [&](bool lives) { isAlive = lives; });
    scheduler->runFor(300 * comm::SECOND);
    EXPECT_TRUE(isAlive);
    EXPECT_EQ(asker->checker.connections(), 1U);
    asker->release();
}

} // namespace
} // namespace kesa::commadapter::test
