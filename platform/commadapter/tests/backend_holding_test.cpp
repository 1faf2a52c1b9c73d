// A server whose answers are not taken serves no further request of that client, and gives it no credit for more: none
// is lost for being one of many, and what both sides keep is bounded. That calls wait, come in order, meet cancels,
// withdrawals and deaths is the crowded runs' of the simulation; here is what these do not draw. A client stands still
// when its process (group 2) is paused, or is a peer that reads nothing.

#include "CarelessPeer.h"
#include "backend_support.h"

#include <kesa/RequestContext.h>

#include <optional>

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
        deadline = RequestContext::deadline();
        peer = RequestContext::current() != nullptr ? RequestContext::current()->peer : nullptr;
        static_cast<void>(handler->onNext(value(std::string(BODY, 'x')))); // perhaps for nobody any more
        handler->onCompleted();
        return this;
    }
    void cancel(void* /*handle*/) override { ADD_FAILURE() << "it has answered"; }

    std::size_t asked = 0;
    std::optional<comm::TimeNs> deadline; ///< of the last request
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
    /// A peer that has attached, and reads nothing.
    std::unique_ptr<CarelessPeer> connectGreedy()
    {
        auto greedy = std::make_unique<CarelessPeer>(*network, protocol::Role::eCLIENT);
        greedy->connect(answersAt);
        settle();
        EXPECT_EQ(greedy->machine().output.attach(1, "/answers"), protocol::Sent::eQUEUED);
        send(*greedy);
        greedy->setReading(false);
        return greedy;
    }
    void send(CarelessPeer& peer)
    {
        peer.send();
        settle();
    }
    /// Whatever credit it has.
    void ask(CarelessPeer& peer, std::uint32_t first, std::uint32_t last)
    {
        auto& output = peer.machine().output;
        for (std::uint32_t number = first; number <= last; ++number) {
            ASSERT_EQ(output.request(number, 1, retrieve("/")), protocol::Sent::eQUEUED);
            static_cast<void>(output.takeRequestCredit(256)); // which nobody gave
            if (number % 10 == 0) {
                send(peer);
            }
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
    const auto handler = service.handlers().front();
    outcomes.clear();
    ask(*asker, 1000);
    for (int i = 0; i < 100; ++i) {
        EXPECT_FALSE(handler->onNext(value("y")));
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
        settings.streamWindow = 1U << 20U; // so that values wait in the queue alone
        begin();
        kept = client->request(persistent());
        other = connect(answersAt);
        settle();
        handler = service.handlers().front();
        faults.draw = [](std::uint64_t bound) { return bound - 1; };
        faults.longestDelay = 400 * comm::MILLISECOND;
        network->setFaults(faults);
        ask(*asker, 200);
        static_cast<void>(other->request(retrieve("/"))); // which waits at the server
        ask(*asker, 3800);
        runFor(3000);
    }
    ~BackendHoldingSlowly() override
    {
        EXPECT_EQ(asker->connections(), 1U);
        EXPECT_FALSE(kept->hasEnded());
    }

    std::shared_ptr<Outcome> kept;
    CheckedService::Kept handler;  ///< of that
    std::unique_ptr<Client> other; ///< on the same connection
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
    EXPECT_FALSE(handler->onNext(value(std::string(BODY, 'y'))));
    scheduler->pauseGroup(2);
    runFor(1500);
    scheduler->continueGroup(2);
    for (int i = 0; i < 210; ++i) { // it is held for longer than its answer to the probe takes
        EXPECT_FALSE(handler->onNext(value(std::string(BODY, 'y'))));
        runFor(i % 7 == 6 ? 400 : 0);
    }
}

TEST_F(BackendHoldingSlowly, TheClientProvesThatItLivesAndTakesBackMeanwhile)
{
    bool isAlive = false;
    answers.peer->proveAlive(comm::SECOND, [&](bool lives) { isAlive = lives; });
    // More than half of the window has to be given back for those that wait at the server.
    constexpr std::size_t TAKEN_BACK = 600;
    const std::size_t asked = answers.asked;
    for (std::size_t i = 0; i < TAKEN_BACK; ++i) {
        asker->cancel(*outcomes[asked + i]);
    }
    asker->cancel(*outcomes.back());
    other->release();
    runFor(300'000);
    EXPECT_TRUE(isAlive);
    EXPECT_EQ(answers.asked, outcomes.size() - TAKEN_BACK - 1) << "they did not come to the service, all others did";
}

TEST_F(BackendHolding, WhoDoesNotKeepToTheWindowIsCutOff)
{
    begin();
    const auto greedy = connectGreedy();
    ask(*greedy, 1, 900);
    EXPECT_THAT(traces->take(), Not(testing::Contains(HasSubstr("is cut off"))));
    std::vector<std::string> end;
    for (std::uint32_t number = 901; number < 2000 && end.empty(); number += 10) {
        ask(*greedy, number, number + 9);
        end = traces->take();
    }
    EXPECT_THAT(end, testing::Contains(HasSubstr("is cut off: it sends more requests than it has credit")));

    const auto twice = connectGreedy();
    ask(*twice, 1, 900);
    EXPECT_THAT(traces->take(), Not(testing::Contains(HasSubstr("is cut off"))));
    ask(*twice, 900, 900);
    EXPECT_THAT(traces->take(), testing::Contains(HasSubstr("is cut off: request number in use")));
}

/// Some of what its client has for it, it has not got yet.
TEST_F(BackendHolding, WhoGivesMoreCreditThanItHasGotRequestsForIsCutOff)
{
    begin();
    for (const std::size_t lie :
         {std::size_t{1}, std::size_t{20'000}, std::size_t{UINT32_MAX}, std::size_t{1} << 33U}) {
        SCOPED_TRACE(lie);
        CarelessPeer generous(*network, protocol::Role::eSERVER);
        generous.listen("careless");
        const auto asking = makeBackend("asking");
        Client other(*asking, "ipc://careless/service");
        settle();
        generous.machine().output.attached(1);
        send(generous);
        ASSERT_TRUE(other.isConnected());
        generous.setReading(false);
        Outcomes calls;
        if (lie > 1) {
            for (int i = 0; i < 100; ++i) {
                calls.push_back(other.request(retrieve("/", std::string(BODY, 'x'))));
            }
            settle();
        }
        generous.machine().output.requestCredit(lie);
        send(generous);
        EXPECT_FALSE(other.isConnected());
        for (const auto& call : calls) {
            EXPECT_THAT(call->errorText, HasSubstr("more credit than the requests have used"));
        }
    }
}

TEST_F(BackendHolding, WhatHasWaitedIsJudgedByTheRulesAndHasTheTimeThatIsLeft)
{
    setRules(R"([{"user": 65533, "may": ["retrieve"], "paths": ["/answers"], "resources": ["/"]}])");
    network->setUser(9, 65533);
    begin();
    const auto greedy = connectGreedy();
    ask(*greedy, 1, 100);
    auto& says = greedy->machine().output;
    ASSERT_EQ(says.request(101, 1, retrieve("/secret")), protocol::Sent::eQUEUED);
    Request limited = retrieve("/");
    limited.setHeader(headers::TIMEOUT, 60'000);
    ASSERT_EQ(says.request(102, 1, limited), protocol::Sent::eQUEUED);
    const comm::TimeNs came = scheduler->now();
    send(*greedy);
    runFor(500);
    EXPECT_THAT(answers.asked, ABOUT_A_QUEUE);
    greedy->setReading(true);
    settle();
    EXPECT_THAT(greedy->heard(), testing::Contains(testing::StartsWith("error 101 403 ")));
    EXPECT_EQ(answers.asked, 101U);
    EXPECT_EQ(answers.deadline, came + 60 * comm::SECOND);
}

/// Else a user's many connections could have a window kept here each.
TEST_F(BackendHolding, WhoIsHeldIsReadAsLongAsItsUserHasRoom)
{
    network->setUser(9, 65533);
    begin();
    std::vector<std::unique_ptr<CarelessPeer>> large; // two have nearly all that a user may
    for (int i = 0; i < 2; ++i) {
        large.push_back(connectGreedy());
        auto& machine = large.back()->machine();
        const Request request = retrieve("/", std::string((16U << 20U) - 500, 'x'));
        ASSERT_EQ(machine.output.request(1, 1, request), protocol::Sent::eQUEUED);
        large.back()->send(protocol::testing::take(machine, 1000));
        settle();
    }
    const auto isUnread = testing::ContainsRegex(R"("unreadBytes":[1-9])");
    const auto first = connectGreedy();
    ask(*first, 1, 100);
    EXPECT_THAT(server->describe(), isUnread);
    first->setReading(true);
    settle();
    EXPECT_EQ(answers.asked, 100U) << "room or not, it is not held any more";
    const auto second = connectGreedy();
    ask(*second, 1, 100);
    EXPECT_THAT(server->describe(), isUnread);
    large.clear();
    settle();
    EXPECT_THAT(server->describe(), Not(isUnread)) << "held or not, there is room";
    EXPECT_THAT(answers.asked - 100, ABOUT_A_QUEUE);
}

/// Each has begun one, the rest of which comes behind what it begins next.
TEST_F(BackendHolding, ConnectionsThatWaitForEachOthersRoomGoOn)
{
    network->setUser(9, 65533);
    transport::MemoryNetwork::Faults roomy;
    roomy.pipeBytes = 32U << 20U;
    network->setFaults(roomy);
    begin();
    protocol::testing::Pair other;
    ASSERT_EQ(other.client.output.request(2, 1, retrieve("/", std::string(4U << 20U, 'x'))), protocol::Sent::eQUEUED);
    const protocol::testing::Bytes next = protocol::testing::takeAll(other.client);
    std::vector<std::unique_ptr<CarelessPeer>> peers; // three have nearly all that a user may
    for (int i = 0; i < 3; ++i) {
        peers.push_back(connectGreedy());
        auto& machine = peers.back()->machine();
        const Request request = retrieve("/", std::string(10U << 20U, 'x'));
        ASSERT_EQ(machine.output.request(1, 1, request), protocol::Sent::eQUEUED);
        peers.back()->send(protocol::testing::take(machine, protocol::HEADER_BYTES + protocol::FRAME_BYTES));
        settle();
    }
    for (const auto& peer : peers) {
        peer->send(next);
        send(*peer);
    }
    EXPECT_EQ(answers.asked, 6U);
}

TEST_F(BackendHolding, WhoReadsNothingIsNotToldOfPathsWithoutEnd)
{
    begin();
    const auto greedy = connectGreedy();
    ask(*greedy, 1, 200);
    const auto queued = [this] {
        const std::string text = server->describe();
        const std::size_t at = text.find("queuedBytes", text.find("careless"));
        return text.substr(at, text.find(',', at) - at);
    };
    const std::string before = queued();
    auto& says = greedy->machine().output;
    for (std::uint32_t number = 2; number < 1000; ++number) {
        ASSERT_EQ(says.attach(number, "/answers"), protocol::Sent::eQUEUED);
        says.detached(number);
        send(*greedy);
    }
    ASSERT_EQ(says.attach(1000, "/answers"), protocol::Sent::eQUEUED);
    send(*greedy);
    EXPECT_EQ(queued(), before);
    greedy->setReading(true);
    settle();
    EXPECT_THAT(greedy->heard(), testing::Contains("attached 1000"));
    EXPECT_EQ(answers.asked, 200U);
}

} // namespace
} // namespace kesa::commadapter::test
