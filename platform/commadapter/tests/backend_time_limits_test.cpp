// Requests with a time limit, in simulated time: what is no limit, what limits cost, and whom a loop that is late keeps
// waiting. When a limit ends its request, what the service learns of it, and how it meets answers, cancels, lost
// connections and loops that stood still is the simulation's.

#include "CarelessPeer.h"
#include "backend/client/Deadlines.h"

#include <kesa/RequestContext.h>

#include <cmath>
#include <set>

namespace kesa::commadapter::test {
namespace {

using testing::HasSubstr;
using util::config::Value;

Request limited(Request request, Value milliseconds)
{
    request.setHeader(headers::TIMEOUT, std::move(milliseconds));
    return request;
}

class BackendTimeLimits : public BothRoads {};

INSTANTIATE_TEST_SUITE_P(IsLocal, BackendTimeLimits, testing::Bool());

TEST_P(BackendTimeLimits, WhatIsNoLimitIsRefusedAndNoTimeIsTooLittle)
{
    service.onRequest = [](const Request&) { ADD_FAILURE() << "it was sent"; };
    for (const Value& bad :
         {Value("soon"), Value("100"), Value(-1), Value(1.5), Value(std::nan("")), Value(true), Value(nullptr)}) {
        const auto outcome = client->request(limited(retrieve("/echo"), bad));
        settle();
        EXPECT_EQ(outcome->status, 400) << bad.toText();
        EXPECT_EQ(outcome->errorText, "\"$timeout\" is not a whole number of milliseconds, 0 or more");
    }
    const auto nothingLeft = client->request(limited(retrieve("/echo"), 0));
    settle();
    EXPECT_EQ(nothingLeft->status, 504);
}

// The loop's events are counted.
TEST_P(BackendTimeLimits, LimitsWakeNobodyWhileAnswersCome)
{
    const auto stepsOf = [this](const Request& request) {
        std::size_t steps = 0;
        for (int i = 0; i < 1000; ++i) {
            const auto outcome = client->request(request);
            steps += scheduler->runReady();
            EXPECT_TRUE(outcome->isCompleted);
        }
        return steps;
    };
    const std::size_t plain = stepsOf(retrieve("/echo", "x"));
    EXPECT_LE(stepsOf(limited(retrieve("/echo", "x"), 100)), plain + 1) << "the timer is set once";
}

using BackendTimeLimitsRemote = SimulatedPair;

class BackendLateLoops : public SimulatedPair {
protected:
    BackendLateLoops()
    {
        begin();
        flood = client->request(persistent());
        settle();
        values = service.handlers().front();
    }

    std::shared_ptr<Outcome> flood;
    CheckedService::Kept values;
};

TEST_F(BackendLateLoops, WorkOfTheirOwnPutsOffNoLimitForLongAndNobodyElse)
{
    int left = 0;
    flood->onValue = [&] {
        work(5);
        if (left > 0) { // so there are always a hundred
            --left;
            EXPECT_FALSE(values->onNext(value("x")));
        }
    };
    auto other = makeBackend("other");
    CheckedService otherService;
    Client besides(*clientBackend, provide(*other, "/other", otherService));
    settle();
    for (const comm::TimeNs limit : {100, 3000}) {
        const comm::TimeNs issued = scheduler->now();
        comm::TimeNs took = 0;
        const auto late = client->request(limited(retrieve("/stream"), limit));
        late->onEnd = [&] {
            took = scheduler->now() - issued;
            left = 0;
        };
        left = 5000;
        for (int i = 0; i < 100; ++i) {
            EXPECT_FALSE(values->onNext(value("x")));
        }
        Asker asker(besides, [&] { return left > 0; });
        settle();
        EXPECT_GT(asker.answers, 5U);
        EXPECT_LT(asker.longest, 50 * comm::MILLISECOND);
        EXPECT_EQ(late->status, 504);
        EXPECT_LT(took, limit * comm::MILLISECOND + 3 * comm::SECOND) << "a second, among reads of half a second";
    }
}

TEST_F(BackendTimeLimitsRemote, ServerRefusesWhatIsNoLimit)
{
    begin();
    service.onRequest = [](const Request&) { ADD_FAILURE() << "it reached the service"; };
    CarelessPeer careless(*network, protocol::Role::eCLIENT);
    careless.connect("ipc://server/service");
    settle();
    ASSERT_EQ(careless.machine().output.attach(1, "/service"), protocol::Sent::eQUEUED);
    careless.send();
    std::uint32_t stream = 0;
    for (const std::string& bad : {std::string("\x64soon"), std::string("\xF9\x7E\x01"), std::string("\xF9\x7C\x00", 3),
                                   std::string("\x41x")}) { // text, two not finite, bytes
        const std::string head = std::string("\xBF\x01\x65/echo\x68$timeout") + bad + '\xFF';
        careless.send(protocol::testing::frame(5, 0, ++stream, 1, {head.begin(), head.end()}));
        settle();
        EXPECT_THAT(careless.heard().back(),
                    HasSubstr("error " + std::to_string(stream) + " 400 <plain/text>\"$timeout\" is not"));
    }
}

TEST(Deadlines, KeepTheirOrderAndFewOfThoseThatHaveEnded)
{
    std::set<std::uint64_t> open;
    Deadlines deadlines([&open](std::uint64_t handle) { return open.contains(handle); });
    const auto add = [&](comm::TimeNs when, std::uint64_t handle) {
        open.insert(handle);
        deadlines.add({when, handle});
    };
    const auto end = [&](std::uint64_t handle) {
        open.erase(handle);
        deadlines.ended();
    };
    for (std::uint64_t handle = 1; handle < 10'000; ++handle) {
        add(static_cast<comm::TimeNs>(100 + handle * 37 % 1009), handle);
        if (handle % 50 != 0) {
            end(handle);
        }
        ASSERT_LE(deadlines.sizeForTest(), 500U);
    }
    const comm::TimeNs first = deadlines.next();
    EXPECT_FALSE(deadlines.takeDue(first - 1));
    std::vector<comm::TimeNs> when;
    while (const auto due = deadlines.takeDue(10'000)) {
        when.push_back(due->when);
    }
    EXPECT_THAT(when, testing::SizeIs(199));
    EXPECT_EQ(when.front(), first);
    EXPECT_TRUE(std::is_sorted(when.begin(), when.end()));
    EXPECT_EQ(deadlines.next(), comm::NEVER);
}

// Many small requests, more than a batch reads, each of which takes a while. Who sent them stays, or is killed: then
// what had a place in its window has come.
TEST_F(BackendTimeLimitsRemote, WhoAsksManyAtOnceLeavesTheLoopToOthersAlsoInTheEnd)
{
    std::size_t many = 10'000;
    constexpr std::size_t FLOOD_BODY = 200;
    faults.pipeBytes = 16U << 20U;
    network->setFaults(faults);
    begin();
    auto other = makeBackend("other");
    Client honest(*other, locator);
    client->request(persistent());
    settle();
    std::size_t served = 0;
    std::string proof;
    service.onRequest = [&](const Request& request) {
        work(1);
        if (request.getPayload().size() == FLOOD_BODY && ++served == many / 2 && !clientBackend) {
            RequestContext::current()->peer->isProcessAlive(100 * comm::MILLISECOND, [&](bool isAlive) {
                proof = isAlive ? "alive" : "dead";
                EXPECT_EQ(served, many) << "it came before the end";
                EXPECT_EQ(service.cancels(), 1U);
            });
        }
    };
    for (const bool isKilled : {false, true}) {
        served = 0;
        many = isKilled ? protocol::REQUEST_WINDOW / 2 / 512 : many; // of a window that is half given back
        for (std::size_t i = 0; i < many; ++i) {
            client->request(retrieve("/echo", std::string(FLOOD_BODY, 'x')));
        }
        if (isKilled) {
            client->forgetBackend();
            kill(clientBackend, 2);
        }
        Asker asker(honest, [&, end = comm::now() + 50 * comm::SECOND] { return served < many && comm::now() < end; });
        runFor(60'000);
        EXPECT_EQ(served, many);
        EXPECT_GT(asker.answers, 100U);
        EXPECT_LT(asker.longest, 50 * comm::MILLISECOND);
    }
    EXPECT_EQ(proof, "dead");
}

} // namespace
} // namespace kesa::commadapter::test
