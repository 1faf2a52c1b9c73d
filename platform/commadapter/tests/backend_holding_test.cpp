// A server whose answers are not taken reads no further request of that client: none is lost for being one of many, and
// what both sides keep is bounded. That calls wait, come in order, meet cancels, withdrawals and deaths is the crowded
// runs' of the simulation; here is what these do not draw. A client stands still when its process (group 2) is paused.

#include "backend_support.h"

#include <kesa/RequestContext.h>

namespace kesa::commadapter::test {
namespace {

using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;

constexpr std::size_t BODY = 1000;
constexpr std::size_t QUEUE = 64U << 10U;
constexpr std::size_t PIPE = 8U << 10U;
/// How many answers fill queue and pipe.
const auto ABOUT_A_QUEUE = AllOf(Ge(QUEUE / (BODY + 100)), Le((QUEUE + PIPE) / BODY + 1));

/// Answers on the loop, at once.
class Answerer final : public IKesaApi {
public:
    void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        ++asked;
        peer = RequestContext::current() != nullptr ? RequestContext::current()->peer : nullptr;
        EXPECT_FALSE(handler->onNext(value(std::string(BODY, 'x'))));
        handler->onCompleted();
        return this;
    }
    void cancel(void* /*handle*/) override { ADD_FAILURE() << "it has answered"; }

    std::size_t asked = 0;
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
        answersAt = provide(*server, "/answers", answers);
        asker = connect(answersAt);
        settle();
    }
    void ask(Client& by, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i) {
            outcomes.push_back(by.request(retrieve("/")));
        }
    }
    std::size_t answered() const
    {
        return countOf(outcomes, [](const auto& outcome) { return outcome->isCompleted && !outcome->values.empty(); });
    }

    Answerer answers;
    std::string answersAt;
    std::unique_ptr<Client> asker;
    Outcomes outcomes; ///< of the calls
};

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
    EXPECT_EQ(client->connections(), 1U);
}

TEST_F(BackendHolding, WhoStandsStillNeitherStopsNorCutsOthers)
{
    settings.sendQueueBytes = 3 * QUEUE;
    settings.processQueueBytes = 2 * QUEUE;
    begin();
    std::vector<std::unique_ptr<IBackend>> backends;
    std::vector<std::unique_ptr<Client>> stopped;
    for (int i = 0; i < 4; ++i) {
        backends.push_back(makeBackend("stopped" + std::to_string(i)));
        stopped.push_back(std::make_unique<Client>(*backends.back(), answersAt));
        settle();
        answers.asked = 0;
        ask(*stopped.back(), 200);
        scheduler->pauseGroup(lastGroup);
        settle();
        EXPECT_TRUE(i == 0 || testing::Value(answers.asked, ABOUT_A_QUEUE)) << answers.asked;
    }
    const auto stream = client->request(persistent());
    settle();
    outcomes.clear();
    ask(*asker, 1000);
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(service.handlers().front()->onNext(value("y")));
        settle();
    }
    EXPECT_EQ(answered(), 1000U);
    EXPECT_EQ(stream->values.size(), 100U);
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
        settings.streamWindow = 1U << 20U; // credit waits behind the requests that are not read
        begin();
        kept = client->request(persistent());
        settle();
        faults.draw = [](std::uint64_t bound) { return bound - 1; };
        faults.longestDelay = 400 * comm::MILLISECOND;
        network->setFaults(faults);
        ask(*asker, 4000);
        runFor(3000);
    }
    ~BackendHoldingSlowly() override
    {
        EXPECT_EQ(asker->connections(), 1U);
        EXPECT_FALSE(kept->hasEnded());
    }

    std::shared_ptr<Outcome> kept;
};

TEST_F(BackendHoldingSlowly, TheClientTakesTheServersSilenceForNoFault)
{
    // More than its bound waits at the client, and nothing of it has moved for a heartbeat.
    for (int i = 0; i < 100; ++i) {
        ask(*asker, 1);
        runFor(100);
    }
    EXPECT_EQ(countOf(outcomes, [](const auto& o) { return o->status != 0; }), 0U);
    EXPECT_GT(answered(), 0U);
}

TEST_F(BackendHoldingSlowly, AProbedClientThatTakesWhatIsQueuedIsNotCutOff)
{
    const auto stream = service.handlers().front();
    EXPECT_FALSE(stream->onNext(value(std::string(BODY, 'y'))));
    scheduler->pauseGroup(2);
    runFor(1500);
    scheduler->continueGroup(2);
    for (int i = 0; i < 210; ++i) { // it is held for longer than its answer to the probe takes
        EXPECT_FALSE(stream->onNext(value(std::string(BODY, 'y'))));
        runFor(i % 7 == 6 ? 400 : 0);
    }
}

TEST_F(BackendHoldingSlowly, TheClientProvesThatItLivesOnceItIsReadAgain)
{
    bool isAlive = false;
    answers.peer->proveAlive(comm::SECOND, [&](bool lives) { isAlive = lives; });
    runFor(300'000);
    EXPECT_TRUE(isAlive);
}

} // namespace
} // namespace kesa::commadapter::test
