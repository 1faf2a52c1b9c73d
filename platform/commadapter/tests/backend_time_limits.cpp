// Requests with a time limit, in simulated time: when they end, what the service learns, and that nothing else changes.

#include "CarelessPeer.h"
#include "backend/Deadlines.h"
#include "backend_roads.h"
#include "protocol/Frame.h"

#include <comm/Condition.h>
#include <kesa/RequestContext.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>

#include <gtest/gtest.h>

#include <cmath>
#include <mutex>
#include <set>

namespace kesa::commadapter::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using util::config::Value;

Request limited(Request request, Value milliseconds)
{
    request.setHeader(headers::TIMEOUT, std::move(milliseconds));
    return request;
}

Request persistent(Request request)
{
    headers::appendResponseSemantic(request, responsesemantics::PERSISTENT_STREAM);
    return request;
}

Request singleResponse(Request request)
{
    headers::appendResponseSemantic(request, responsesemantics::SINGLE_RESPONSE);
    return request;
}

class BackendTimeLimits : public BothRoads {
protected:
    void runFor(comm::TimeNs milliseconds) { scheduler->runFor(milliseconds * comm::MILLISECOND); }
};

TEST_P(BackendTimeLimits, WhatIsNotAnsweredInTimeEndsWith504AndIsCancelled)
{
    const auto late = client->request(limited(retrieve("/stream"), 200));
    const auto unlimited = client->request(retrieve("/stream"));
    const auto persistentLate = client->request(limited(persistent(retrieve("/stream")), 100));
    runFor(99);
    const auto answer = service.handlers().front();
    EXPECT_FALSE(answer->onNext(value("not all"))) << "the answer has to be complete";
    EXPECT_FALSE(persistentLate->isOver());
    runFor(2);
    EXPECT_EQ(persistentLate->status, 504);
    EXPECT_FALSE(late->isOver());
    runFor(98);
    EXPECT_FALSE(late->isOver());
    EXPECT_EQ(service.cancels(), 1U);
    runFor(2);
    EXPECT_EQ(late->status, 504);
    EXPECT_EQ(late->errorText, "no answer within 200 ms");
    EXPECT_TRUE(late->isDestroyed);
    settle();
    EXPECT_EQ(service.cancels(), 2U);
    EXPECT_TRUE(answer->onNext(value("late")));
    answer->onCompleted();

    runFor(10'000);
    EXPECT_THAT(late->values, ElementsAre("not all"));
    EXPECT_FALSE(unlimited->isOver());
    EXPECT_TRUE(client->checker.isConnected());
}

TEST_P(BackendTimeLimits, WhatIsAnsweredInTimeHearsNoMoreOfIt)
{
    const auto call = client->request(limited(retrieve("/stream"), 100));
    const auto stream = client->request(limited(persistent(retrieve("/stream")), 100));
    const auto single = client->request(limited(singleResponse(retrieve("/stream")), 100));
    const auto cancelled = client->request(limited(retrieve("/stream"), 100));
    client->cancel(*cancelled);
    runFor(99);
    const auto answer = service.take();
    EXPECT_FALSE(answer->onNext(value("just")));
    answer->onCompleted();
    const auto watched = service.handlers().front();
    EXPECT_FALSE(watched->onNext(value("1")));
    const auto ends = service.handlers().back();
    EXPECT_FALSE(ends->onNext(value("all")));
    scheduler->runReady();
    const auto sameNumber = client->request(limited(retrieve("/stream"), 1000));
    runFor(999);
    EXPECT_FALSE(sameNumber->isOver());
    runFor(10'000);
    EXPECT_EQ(sameNumber->status, 504);
    EXPECT_THAT(call->values, ElementsAre("just"));
    EXPECT_TRUE(call->isCompleted);
    EXPECT_FALSE(stream->isOver()) << "only its first value has a time limit";
    EXPECT_FALSE(watched->onNext(value("2")));
    EXPECT_FALSE(single->isOver()) << "its one value was there in time";
    ends->onCompleted();
    settle();
    EXPECT_THAT(stream->values, ElementsAre("1", "2"));
    EXPECT_THAT(single->values, ElementsAre("all"));
    EXPECT_TRUE(single->isCompleted);
}

TEST_P(BackendTimeLimits, ServiceKnowsHowLongItHas)
{
    std::optional<comm::TimeNs> deadline;
    service.onRequest = [&](const Request&) { deadline = RequestContext::deadline(); };
    const comm::TimeNs issued = scheduler->now();
    client->request(limited(retrieve("/echo"), 1500));
    settle();
    EXPECT_EQ(deadline, issued + 1500 * comm::MILLISECOND) << "the memory network takes no time";
    EXPECT_EQ(RequestContext::deadline(), std::nullopt) << "only inside the call";
    for (const Value& none : {Value(), Value(UINT64_MAX)}) {
        const auto forEver = client->request(limited(retrieve("/echo"), none));
        settle();
        EXPECT_EQ(deadline, std::nullopt) << none.toText();
        EXPECT_TRUE(forEver->isCompleted);
    }
}

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

TEST_P(BackendTimeLimits, OtherEndsComeFirst)
{
    const auto open = client->request(limited(retrieve("/stream"), 100));
    settle();
    server->unprovide(url(locator));
    service.withdrawn();
    settle();
    EXPECT_EQ(open->status, 503);
    const auto unsent = client->request(limited(retrieve("/stream"), 100));
    settle();
    EXPECT_EQ(unsent->status, 503);
    runFor(10'000); // and no second end
}

TEST_P(BackendTimeLimits, HandlerOfOneMayCancelTheNextAndIssueAgain)
{
    const auto first = client->request(limited(retrieve("/stream"), 100));
    const auto second = client->request(limited(retrieve("/stream"), 100));
    std::shared_ptr<Outcome> again;
    first->onEnd = [&] {
        client->cancel(*second);
        again = client->request(limited(retrieve("/stream"), 100));
    };
    runFor(101);
    EXPECT_EQ(first->status, 504);
    EXPECT_EQ(second->status, 0);
    ASSERT_TRUE(again);
    EXPECT_FALSE(again->isOver());
    runFor(101);
    EXPECT_EQ(again->status, 504);
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

INSTANTIATE_TEST_SUITE_P(Roads, BackendTimeLimits, testing::Values(Road::eREMOTE, Road::eLOCAL), nameOfRoad);

class BackendTimeLimitsRemote : public SimulatedPair {
protected:
    BackendTimeLimitsRemote() { begin(); }
};

// More was answered than the stream holds, so the rest comes while the client reads; each piece takes a while. Which
// comes first when it goes on, the timer or the answers, is drawn.
TEST_F(BackendTimeLimitsRemote, AnswersThatWaitForALateLoopCount)
{
    transport::MemoryNetwork::Faults narrow;
    narrow.pipeBytes = 4096;
    narrow.draw = [drawn = std::uint64_t{0}](std::uint64_t bound) mutable { return ++drawn * 7919 % bound; };
    narrow.longestDelay = 5 * comm::MILLISECOND;
    network->setFaults(narrow);
    for (int round = 0; round < 10; ++round) {
        std::vector<std::shared_ptr<Outcome>> outcomes;
        for (int i = 0; i < 20; ++i) {
            outcomes.push_back(client->request(limited(retrieve("/stream"), 100)));
        }
        scheduler->runFor(90 * comm::MILLISECOND);
        scheduler->pauseGroup(2);
        while (const auto handler = service.take()) {
            EXPECT_FALSE(handler->onNext(value(std::string(4000, 'x'))));
            handler->onCompleted();
        }
        for (int stops = 0; stops < 2; ++stops) { // the second one in the midst of looking
            scheduler->runFor(comm::SECOND);
            scheduler->continueGroup(2);
            scheduler->runFor(20 * comm::MILLISECOND);
            scheduler->pauseGroup(2);
        }
        scheduler->continueGroup(2);
        scheduler->runFor(comm::SECOND);
        for (const auto& outcome : outcomes) {
            EXPECT_TRUE(outcome->isCompleted) << outcome->errorText;
        }
    }
    EXPECT_EQ(service.cancels(), 0U);
}

TEST_F(BackendTimeLimitsRemote, PeerThatSendsOnAndOnPutsOffNoLimitForLong)
{
    client->request(persistent(retrieve("/stream")));
    const auto floodFor = [this](int milliseconds) {
        for (int i = 0; i < milliseconds / 10; ++i) {
            EXPECT_FALSE(service.handlers().front()->onNext(value("x")));
            scheduler->runFor(10 * comm::MILLISECOND);
        }
    };
    settle();
    const auto punctual = client->request(limited(retrieve("/stream"), 100));
    floodFor(110);
    EXPECT_EQ(punctual->status, 504) << "the loop did not stand still";
    const auto late = client->request(limited(retrieve("/stream"), 100));
    scheduler->pauseGroup(2);
    scheduler->runFor(comm::SECOND);
    scheduler->continueGroup(2);
    floodFor(900);
    EXPECT_FALSE(late->isOver());
    floodFor(200);
    EXPECT_EQ(late->status, 504);
}

TEST_F(BackendTimeLimitsRemote, LoopThatIsLateBecauseItWorksPutsOffNoLimitForLong)
{
    const auto flood = client->request(persistent(retrieve("/stream")));
    settle();
    const auto values = service.handlers().front();
    int left = 0;
    flood->onValue = [&] {
        std::mutex mutex;
        std::unique_lock lock(mutex);
        comm::Condition busy;
        comm::waitFor(
            busy, lock, [] { return false; }, comm::now() + 5 * comm::MILLISECOND);
        if (left > 0) { // so there are always a hundred
            --left;
            EXPECT_FALSE(values->onNext(value("x")));
        }
    };
    for (const comm::TimeNs limit : {100 * comm::MILLISECOND, 3 * comm::SECOND}) {
        const comm::TimeNs issued = scheduler->now();
        comm::TimeNs took = 0;
        const auto late = client->request(limited(retrieve("/stream"), limit / comm::MILLISECOND));
        late->onEnd = [&] {
            took = scheduler->now() - issued;
            left = 0;
        };
        left = 5000;
        for (int i = 0; i < 100; ++i) {
            EXPECT_FALSE(values->onNext(value("x")));
        }
        settle();
        EXPECT_EQ(late->status, 504);
        EXPECT_LT(took, limit + 3 * comm::SECOND) << "looking for a second, among reads of half a second";
    }
}

TEST_F(BackendTimeLimitsRemote, PeerThatStandsStillCostsNoMoreThanTheLimit)
{
    transport::MemoryNetwork::Faults narrow;
    narrow.pipeBytes = 4096;
    network->setFaults(narrow);
    scheduler->pauseGroup(1);
    const auto fills = client->request(limited(retrieve("/echo", std::string(8192, 'x')), 100));
    const auto waits = client->request(limited(retrieve("/echo", "behind it"), 100));
    scheduler->runFor(101 * comm::MILLISECOND);
    EXPECT_EQ(fills->status, 504);
    EXPECT_EQ(waits->status, 504) << "before it was written";
    unsigned asked = 0;
    service.onRequest = [&asked](const Request&) { ++asked; };
    scheduler->continueGroup(1);
    settle();
    EXPECT_EQ(asked, 1U) << "only what had begun to be written";
    const auto next = client->request(retrieve("/echo", "there"));
    settle();
    EXPECT_THAT(next->values, ElementsAre("there"));
}

TEST_F(BackendTimeLimitsRemote, ServerRefusesWhatIsNoLimit)
{
    service.onRequest = [](const Request&) { ADD_FAILURE() << "it reached the service"; };
    CarelessPeer careless(*network, protocol::Machine::Role::eCLIENT);
    careless.connect("ipc://server/service");
    settle();
    ASSERT_EQ(careless.machine().attach(1, "/service"), protocol::Machine::Sent::eQUEUED);
    careless.send();
    std::uint32_t stream = 0;
    for (const std::string& bad : {std::string("\x64soon"), std::string("\xF9\x7E\x01"), std::string("\xF9\x7C\x00", 3),
                                   std::string("\x41x")}) { // text, two not finite, bytes
        const std::string head = std::string("\xBF\x01\x65/echo\x68$timeout") + bad + '\xFF';
        protocol::FrameHeader header;
        header.length = header.head = static_cast<std::uint16_t>(head.size());
        header.kind = static_cast<std::uint8_t>(protocol::Kind::eREQUEST);
        header.stream = ++stream;
        header.target = 1;
        protocol::testing::Bytes bytes(protocol::HEADER_BYTES);
        protocol::writeHeader(bytes.data(), header);
        bytes.insert(bytes.end(), head.begin(), head.end());
        careless.send(bytes);
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
    EXPECT_EQ(deadlines.next(), comm::NEVER);
    add(70, 1);
    add(50, 2);
    add(60, 3);
    for (std::uint64_t handle = 4; handle < 10'000; ++handle) {
        add(100 + static_cast<comm::TimeNs>(handle * 37 % 1009), handle);
        if (handle % 50 != 0) {
            end(handle);
        }
        ASSERT_LE(deadlines.sizeForTest(), 500U);
    }
    EXPECT_EQ(deadlines.next(), 50);
    EXPECT_FALSE(deadlines.takeDue(49));
    EXPECT_EQ(deadlines.takeDue(65)->handle, 2U);
    end(3);
    EXPECT_FALSE(deadlines.takeDue(65));
    EXPECT_EQ(deadlines.takeDue(70)->handle, 1U);
    std::vector<comm::TimeNs> rest;
    while (const auto due = deadlines.takeDue(10'000)) {
        rest.push_back(due->when);
    }
    EXPECT_THAT(rest, testing::SizeIs(199));
    EXPECT_TRUE(std::is_sorted(rest.begin(), rest.end()));
    EXPECT_EQ(deadlines.next(), comm::NEVER);
}

} // namespace
} // namespace kesa::commadapter::test
