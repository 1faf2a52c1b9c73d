// Requests over the backend: answers, ends, cancels, and the statuses the backend makes itself. Each test runs over a
// connection between two processes and over the own process's locator: both must behave the same.

#include "backend_roads.h"

#include <comm/Condition.h>
#include <comm/LoopHold.h>
#include <kesa/IStreamControl.h>
#include <kesa/RequestContext.h>
#include <kesa/headers.h>

#include <gmock/gmock.h>

#include <mutex>
#include <stdexcept>

namespace kesa::commadapter::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class BackendRequests : public BothRoads {};

TEST_P(BackendRequests, AnswersComeInOrderAndOnTheLoopOnly)
{
    ASSERT_TRUE(client->checker.isConnected());
    const auto echo = client->request(retrieve("/echo", "hello"));
    const auto stream = client->request(retrieve("/stream"));
    EXPECT_THAT(echo->values, IsEmpty()) << "never inside `request`";
    settle();
    EXPECT_THAT(echo->values, ElementsAre("hello"));
    EXPECT_TRUE(echo->isCompleted);
    EXPECT_TRUE(echo->isDestroyed);

    const auto answer = service.take();
    ASSERT_TRUE(answer);
    EXPECT_FALSE(answer->onNext(value("1")));
    EXPECT_FALSE(answer->onNext(value("2")));
    EXPECT_THAT(stream->values, IsEmpty()) << "never inside `onNext`";
    answer->onError(Response::createErrorResponse(404, "no such thing"));
    EXPECT_TRUE(answer->onNext(value("3"))) << "the stream has ended";
    settle();
    EXPECT_THAT(stream->values, ElementsAre("1", "2"));
    EXPECT_EQ(stream->status, 404);
    EXPECT_EQ(stream->errorText, "no such thing");

    const auto dropped = client->request(retrieve("/drop"));
    const auto keptAndDropped = client->request(retrieve("/stream"));
    settle();
    service.take(); // and lets go of it
    settle();
    EXPECT_EQ(dropped->status, 503);
    EXPECT_EQ(keptAndDropped->status, 503);
    EXPECT_TRUE(client->checker.isConnected());
}

TEST_P(BackendRequests, LeaveAtOnceAlsoFromSomebodysWorkOnTheLoop)
{
    auto echo = client->request(retrieve("/drop"));
    settle();
    lastLoop.lock()->post([&] { echo = client->request(retrieve("/echo", "hello")); });
    settle(); // no heartbeat is due, whose turn would take it along
    EXPECT_THAT(echo->values, ElementsAre("hello"));
}

TEST_P(BackendRequests, WhatHoldsTheLoopIsNamed)
{
    const auto wait = [](comm::TimeNs duration) {
        std::mutex mutex;
        comm::Condition never;
        std::unique_lock lock(mutex);
        comm::waitFor(
            never, lock, [] { return false; }, comm::now() + duration);
    };
    comm::TimeNs echoTakes = 60 * comm::MILLISECOND;
    std::string held;
    service.onRequest = [&](const Request& request) {
        wait(request.getPath() == "/echo" ? echoTakes : 30 * comm::MILLISECOND);
        held = std::to_string(server->hold()->heldFor() / comm::MILLISECOND) + " ms by " + server->hold()->holder();
    };
    const auto linesOf = [&](std::size_t requests) {
        for (std::size_t i = 0; i < requests; ++i) {
            client->request(retrieve("/echo", "hello"));
            client->request(retrieve("/drop"));
        }
        scheduler->runFor(2 * comm::SECOND);
        return traces->take();
    };
    const char* const request = "the request 'retrieve /echo' of the service '/service' took 60 ms";
    EXPECT_THAT(linesOf(1), ElementsAre(AllOf(HasSubstr(request), EndsWith("as kesa::on does"))));
    EXPECT_EQ(held, "30 ms by the request 'retrieve /drop' of the service '/service'") << "while it does";
    EXPECT_THAT(linesOf(3), ElementsAre(HasSubstr(request))) << "one in a second";
    EXPECT_THAT(linesOf(1), ElementsAre(AllOf(HasSubstr(request), EndsWith("; and 2 more since the last such line"))));

    echoTakes = 0;
    const auto answered = client->request(retrieve("/echo", "hello"));
    answered->onValue = [&] { wait(70 * comm::MILLISECOND); };
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("the handler of an answer of '/service' took 70 ms")));

    client->checker.onChange = [&] { wait(80 * comm::MILLISECOND); };
    server->unprovide(url(locator));
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("what has been told that '/service' comes or goes took 80 ms")));
    client->checker.onChange = {};
    const auto failed = client->request(retrieve("/echo"));
    failed->onEnd = [&] { wait(90 * comm::MILLISECOND); };
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("the handler of an answer of '/service' took 90 ms")));
}

TEST_P(BackendRequests, WhatThrowsIsNamedBeforeTheProcessEnds)
{
    const auto fail = [] { throw std::runtime_error("disk full"); };
    const auto request = [&](bool isService) {
        tracing::setSink(nullptr);
        service.onRequest = [&](const Request&) { isService ? fail() : void(); };
        const auto answered = client->request(retrieve("/echo", "hello"));
        answered->onValue = fail;
        settle();
    };
    const auto withdraw = [&](bool isRequest) {
        tracing::setSink(nullptr);
        const auto open = client->request(retrieve("/stream"));
        settle();
        (isRequest ? open->onEnd : client->checker.onChange) = fail;
        server->unprovide(url(locator));
        settle();
    };
    const std::string rest = " has thrown, which ends this process: disk full; catch it there";
    EXPECT_DEATH(request(true), "the request 'retrieve /echo' of the service '/service'" + rest);
    EXPECT_DEATH(request(false), "the handler of an answer of '/service'" + rest);
    EXPECT_DEATH(withdraw(true), "the handler of an answer of '/service'" + rest);
    EXPECT_DEATH(withdraw(false), "what has been told that '/service' comes or goes" + rest);
}

TEST_P(BackendRequests, ServiceLearnsFromTheTransportWhoAsks)
{
    RequestContext seen;
    bool hasContext = false;
    std::string clientId;
    service.onRequest = [&](const Request& request) {
        hasContext = RequestContext::current() != nullptr;
        seen = hasContext ? *RequestContext::current() : RequestContext();
        clientId = request.getHeader(headers::CLIENT_ID).stringView();
        for (const auto& [name, one] : request.getHeaders()) {
            EXPECT_EQ(request.getHeader(name), one) << name;
        }
        EXPECT_FALSE(request.getHeader("nam").isDefined()) << "a part of one that is there";
    };
    Request request = retrieve("/echo");
    request.setHeader(headers::CLIENT_ID, "somebody else");
    request.setHeader(headers::ACCEPT, "application/json");
    request.setHeader("name", util::config::Value::Array{1, "two"});
    request.setHeader("of", "name");
    client->request(request);
    settle();
    EXPECT_EQ(hasContext, !isLocal()) << "a caller in this process has none";
    EXPECT_NE(clientId, "somebody else");
    if (!isLocal()) {
        EXPECT_EQ(seen.process, "client");
        EXPECT_EQ(seen.pid, 2) << "the group of the memory network";
        EXPECT_FALSE(seen.instance.isNil());
        EXPECT_EQ(clientId, "client:2");
    }
}

TEST_P(BackendRequests, CancelledHandlerHearsNothingMore)
{
    const auto stream = client->request(retrieve("/stream"));
    settle();
    const auto answer = service.handlers().front();
    answer->onNext(value("1"));
    client->cancel(*stream);
    EXPECT_TRUE(stream->isDestroyed);
    EXPECT_THAT(stream->values, IsEmpty()) << "it was on its way";
    settle();
    EXPECT_EQ(service.cancels(), 1U);
    EXPECT_TRUE(answer->onNext(value("2")));
    answer->onCompleted();

    // Twice, after the end, and what never was: nothing.
    client->cancel(*stream);
    client->api().cancel(IKesaApi::UNDEFINED_REQUEST_HANDLE);
    const auto echo = client->request(retrieve("/echo", "x"));
    settle();
    client->cancel(*echo);
    settle();
    EXPECT_THAT(echo->values, ElementsAre("x"));
    EXPECT_EQ(service.cancels(), 1U);
}

TEST_P(BackendRequests, HandlerMayCancelItselfAndIssueAgain)
{
    const auto stream = client->request(retrieve("/stream"));
    std::shared_ptr<Outcome> second;
    stream->onValue = [&] {
        client->cancel(*stream);
        EXPECT_FALSE(stream->isDestroyed) << "its call is still running";
        second = client->request(retrieve("/echo", "again"));
    };
    settle();
    const auto answer = service.handlers().front();
    answer->onNext(value("1"));
    answer->onNext(value("2"));
    settle();
    EXPECT_THAT(stream->values, ElementsAre("1"));
    EXPECT_TRUE(stream->isDestroyed);
    ASSERT_TRUE(second);
    EXPECT_THAT(second->values, ElementsAre("again"));
    EXPECT_EQ(service.cancels(), 1U);
}

TEST_P(BackendRequests, ServiceThatIsWithdrawnIsDisconnectedAfterIts503s)
{
    std::vector<std::string> events;
    const auto stream = client->request(retrieve("/stream"));
    stream->onEnd = [&] { events.emplace_back("end"); };
    settle();
    client->checker.onChange = [&] { events.emplace_back("disconnected"); };
    server->unprovide(url(locator));
    service.withdrawn();
    EXPECT_EQ(service.cancels(), 1U);
    settle();
    EXPECT_EQ(stream->status, 503);
    EXPECT_THAT(events, ElementsAre("end", "disconnected"));

    const auto late = client->request(retrieve("/echo"));
    EXPECT_EQ(late->status, 0) << "never inside `request`";
    const auto cancelled = client->request(retrieve("/echo"));
    client->cancel(*cancelled);
    settle();
    EXPECT_EQ(late->status, 503);
    EXPECT_TRUE(cancelled->isDestroyed);
    EXPECT_FALSE(client->checker.isConnected());
}

// The loop's events are counted: what is told costs none for each request.
TEST_P(BackendRequests, OneThatFailsCostsTheSameAmongMany)
{
    constexpr unsigned MANY = 20'000;
    server->unprovide(url(locator));
    settle();
    std::vector<std::shared_ptr<Outcome>> told;
    for (unsigned i = 0; i < MANY; ++i) {
        told.push_back(client->request(retrieve("/echo")));
        client->cancel(*client->request(retrieve("/echo")));
    }
    EXPECT_LT(scheduler->runReady(), MANY / 100);
    for (const auto& outcome : told) {
        EXPECT_EQ(outcome->status, 503);
    }
}

TEST_P(BackendRequests, HandlerThatIssuesAgainAtOnceGetsThrough)
{
    server->unprovide(url(locator));
    settle();
    struct Again final : IResponseHandler<Response> {
        Again(Client& toAsk, std::string& toFill, unsigned timesLeft) : client(toAsk), answer(toFill), left(timesLeft)
        {}
        bool onNext(const Response& response) override
        {
            answer = response.getPayload().text();
            return false;
        }
        void onError(const Response&) override
        {
            if (left > 0) {
                client.api().request(retrieve("/echo", "there"), std::make_unique<Again>(client, answer, left - 1));
            }
        }
        void onCompleted() override {}
        Client& client;
        std::string& answer;
        const unsigned left;
    };
    std::string answer;
    client->api().request(retrieve("/echo", "there"), std::make_unique<Again>(*client, answer, 10'000));
    ASSERT_EQ(provide(*server, "/service", service), locator);
    settle();
    EXPECT_EQ(answer, "there");
    EXPECT_TRUE(client->checker.isConnected());
}

// Wherever the requests are on their way, to whichever service: they end before the listener hears of it.
TEST_P(BackendRequests, QuickWithdrawalIsSeenAndEndsWhatWasOpen)
{
    const auto fewSteps = [this] {
        for (std::uint64_t i = scheduler->draw(6); i > 0; --i) {
            scheduler->step();
        }
    };
    for (int round = 0; round < 300; ++round) {
        CheckedService first("first");
        CheckedService second("second");
        const std::string at = provide(*server, "/quick", first);
        Client quick(backend(), at);
        quick.start();
        settle();
        ASSERT_TRUE(quick.checker.isConnected());
        const auto before = quick.request(retrieve("/stream"));
        std::shared_ptr<Outcome> between;
        quick.checker.onChange = [&] {
            EXPECT_EQ(before->status, 503);
            EXPECT_TRUE(!between || between->status == 503 || between->connection == 2);
        };
        fewSteps();
        server->unprovide(url(at));
        first.withdrawn();
        ASSERT_EQ(provide(*server, "/quick", second), at);
        fewSteps();
        between = quick.request(retrieve("/stream"));
        settle();
        EXPECT_EQ(quick.checker.connections(), 2U);
        EXPECT_EQ(between->status, between->connection == 2 ? 0 : 503);
        EXPECT_EQ(second.open(), between->connection == 2 ? 1U : 0U) << "what came before the disconnect is cancelled";
        quick.release();
        settle();
        server->unprovide(url(at));
    }
}

TEST_P(BackendRequests, WhatHasNoFormOnTheWireEndsItsRequestWithWhatIsWrong)
{
    const std::string huge(200U << 10U, 'x');
    const auto asked = client->request(retrieve("/echo", huge));
    const auto wide = client->request(retrieve('/' + std::string(61U << 10U, 'p')));
    const auto once = client->request(retrieve("/stream"));
    const auto stream = client->request(retrieve("/stream"));
    const auto odd = client->request(retrieve("/stream"));
    settle();
    const auto isToldTheSize = HasSubstr(
        "bytes, more than the 102400 of \"comm\", \"max_message_bytes\" in the configuration of both processes");
    EXPECT_EQ(asked->status, 413);
    EXPECT_THAT(asked->errorText, isToldTheSize);
    EXPECT_EQ(wide->status, 413);
    EXPECT_THAT(wide->errorText, HasSubstr("path and headers, more than the 61440"));

    const auto answer = service.take(); // done with, once it has completed
    EXPECT_TRUE(answer->onNext(value(huge)));
    answer->onCompleted();
    const auto watched = service.handlers().front();
    EXPECT_FALSE(watched->onNext(value("small")));
    EXPECT_TRUE(watched->onNext(value(huge)));
    EXPECT_TRUE(watched->onNext(value("after"))) << "one is missing before it";
    Response broken = value("x");
    broken.setHeader("name", "\xff");
    EXPECT_TRUE(service.handlers().back()->onNext(broken));
    EXPECT_EQ(service.cancels(), 0U) << "never inside `onNext`";
    settle();
    EXPECT_EQ(once->status, 413);
    EXPECT_THAT(once->errorText, isToldTheSize);
    EXPECT_THAT(once->values, IsEmpty());
    EXPECT_EQ(stream->status, 413);
    EXPECT_THAT(stream->errorText, isToldTheSize);
    EXPECT_THAT(stream->values, ElementsAre("small"));
    EXPECT_EQ(odd->status, 500);
    EXPECT_THAT(odd->errorText, HasSubstr("not UTF-8"));
    EXPECT_EQ(service.cancels(), 2U) << "of those that the service had not ended";
    EXPECT_TRUE(client->checker.isConnected());
}

TEST_P(BackendRequests, StopEndsEverythingBeforeItReturns)
{
    const auto stream = client->request(retrieve("/stream"));
    settle();
    const auto answer = service.handlers().front();
    const auto unsent = client->request(retrieve("/stream"));
    backend().stop();
    EXPECT_EQ(stream->status, 503);
    EXPECT_EQ(unsent->status, 503);
    EXPECT_EQ(service.cancels() > 0, isLocal());
    client->checker.released(); // no listener call after `stop`
    settle();
    EXPECT_EQ(service.open(), 0U);
    EXPECT_TRUE(answer->onNext(value("late")));
    answer->onCompleted();

    clientBackend.reset();
    server.reset();
    client->forgetBackend();
    const auto after = client->request(retrieve("/echo"));
    EXPECT_EQ(after->status, 503) << "the client object outlives its backend";
    EXPECT_EQ(after->handle, IKesaApi::UNDEFINED_REQUEST_HANDLE);
    client->api().cancel(IKesaApi::UNDEFINED_REQUEST_HANDLE);
}

TEST_P(BackendRequests, ServiceMayWithdrawItselfInsideARequest)
{
    service.onRequest = [&](const Request&) { server->unprovide(url(locator)); };
    const auto outcome = client->request(retrieve("/echo", "x"));
    settle();
    EXPECT_EQ(outcome->status, 503);
    EXPECT_EQ(service.cancels(), 0U);
    EXPECT_FALSE(client->checker.isConnected());
}

INSTANTIATE_TEST_SUITE_P(Roads, BackendRequests, testing::Values(Road::eREMOTE, Road::eLOCAL), nameOfRoad);

} // namespace
} // namespace kesa::commadapter::test
