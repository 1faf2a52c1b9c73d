// Requests over the backend: answers, ends, cancels, and the statuses the backend makes itself. Each test runs over a
// connection between two processes and over the own process's locator: both must behave the same.

#include "backend_support.h"

#include <comm/ICallWatch.h>
#include <comm/LoopHold.h>
#include <kesa/RequestContext.h>

#include <stdexcept>

namespace kesa::commadapter::test {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;

class BackendRequests : public BothRoads {
protected:
    void withdraw()
    {
        server->unprovide(url(locator));
        settle();
    }
};

INSTANTIATE_TEST_SUITE_P(IsLocal, BackendRequests, testing::Bool());

TEST_P(BackendRequests, WhatIsAskedForByWorkOnTheLoopLeavesAtOnce)
{
    int answers = 0;
    lastLoop.lock()->post([&] { client->request(retrieve("/echo"))->onEnd = [&answers] { ++answers; }; });
    EXPECT_EQ(answers, 0);
    settle(); // no heartbeat is due, whose turn would take it along
    EXPECT_EQ(answers, 1);
}

TEST_P(BackendRequests, WhatHoldsTheLoopIsNamed)
{
    comm::TimeNs echoTakes = 60;
    std::string held;
    service.onRequest = [&](const Request& request) {
        work(request.getPath() == "/echo" ? echoTakes : 30);
        held = std::to_string(server->hold()->heldFor() / comm::MILLISECOND) + " ms by " + server->hold()->holder();
    };
    const auto linesOf = [&](std::size_t requests) {
        for (std::size_t i = 0; i < requests; ++i) {
            client->request(retrieve("/echo", "hello"));
            client->request(retrieve("/drop"));
        }
        runFor(2000);
        return traces->take();
    };
    const char* const request = "the request 'retrieve /echo' of the service '/service' took 60 ms";
    EXPECT_THAT(linesOf(1), ElementsAre(AllOf(HasSubstr(request), EndsWith("as kesa::on does"))));
    EXPECT_EQ(held, "30 ms by the request 'retrieve /drop' of the service '/service'") << "while it does";
    EXPECT_THAT(linesOf(3), ElementsAre(HasSubstr(request))) << "one in a second";
    EXPECT_THAT(linesOf(1), ElementsAre(AllOf(HasSubstr(request), EndsWith("; and 2 more since the last such line"))));

    echoTakes = 0;
    client->request(retrieve("/echo"))->onValue = [&] { work(70); };
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("the handler of an answer of '/service' took 70 ms")));
    client->request(retrieve("/echo"))->onValue = [&] {
        comm::ICallWatch::current()->tellInside("whenKnown", "/a", [&] { work(75); });
    };
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("[loop] the handler of whenKnown for '/a' took 75 ms")));
    client->onChange = [&] { work(80); };
    withdraw();
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("what has been told that '/service' comes or goes took 80 ms")));
    client->request(retrieve("/echo"))->onEnd = [&] { work(90); };
    EXPECT_THAT(linesOf(0), ElementsAre(HasSubstr("the handler of an answer of '/service' took 90 ms")));
}

TEST_P(BackendRequests, WhatThrowsIsNamedBeforeTheProcessEnds)
{
    const auto fail = [] { throw std::runtime_error("disk full"); };
    const auto open = client->request(retrieve("/stream"));
    settle();
    const auto request = [&](bool isService) {
        ::tracing::setSink(nullptr);
        service.onRequest = [&](const Request&) { isService ? fail() : void(); };
        client->request(retrieve("/echo", "hello"))->onValue = fail;
        settle();
    };
    const auto withdrawn = [&](std::function<void()>& whoThrows) {
        ::tracing::setSink(nullptr);
        whoThrows = fail;
        withdraw();
    };
    const std::string rest = " has thrown, which ends this process: disk full; catch it there";
    EXPECT_DEATH(request(true), "the request 'retrieve /echo' of the service '/service'" + rest);
    EXPECT_DEATH(request(false), "the handler of an answer of '/service'" + rest);
    EXPECT_DEATH(withdrawn(open->onEnd), "the handler of an answer of '/service'" + rest);
    EXPECT_DEATH(withdrawn(client->onChange), "what has been told that '/service' comes or goes" + rest);
}

TEST_P(BackendRequests, ServiceLearnsFromTheTransportWhoAsks)
{
    using util::config::Value;
    const Value sent = Value::Array{1, "two", true, nullptr, util::config::Dictionary{{"ü", Value::Array{-1.5}}}};
    std::string seen;
    service.onRequest = [&](const Request& request) {
        const RequestContext* const context = RequestContext::current();
        ASSERT_EQ(context == nullptr, isLocal()) << "a caller in this process has none";
        const std::string clientId(request.getHeader(headers::CLIENT_ID).stringView());
        EXPECT_NE(clientId, "somebody else");
        if (context != nullptr) {
            EXPECT_FALSE(context->instance.isNil());
            seen = context->process + ' ' + std::to_string(context->pid) + ' ' + std::to_string(context->start) + ' ' +
                   clientId;
        }
        for (const auto& [name, one] : request.getHeaders()) {
            EXPECT_EQ(request.getHeader(name), one) << name;
        }
        EXPECT_EQ(request.getHeaders()["name"], sent);
        EXPECT_EQ(request.getHeaders()["more"], 70000);
        EXPECT_EQ(request.getHeaders()["less"], -1);
        EXPECT_FALSE(request.getHeader("nam").isDefined()) << "a part of one that is there";
    };
    Request request = retrieve("/echo");
    request.setHeader(headers::CLIENT_ID, "somebody else");
    request.setHeader("name", sent);
    request.setHeader("of", "name");
    request.setHeader("more", 70000);
    request.setHeader("less", -1);
    client->request(request);
    settle();
    EXPECT_EQ(seen, isLocal() ? "" : "client 2 1 client:2")
        << "in the memory network the group is the pid, and counts starts";
}

TEST_P(BackendRequests, ServiceMayWithdrawItselfInsideARequest)
{
    service.onRequest = [&](const Request&) { server->unprovide(url(locator)); };
    const auto outcome = client->request(retrieve("/echo", "x"));
    settle();
    EXPECT_EQ(outcome->status, 503);
    EXPECT_EQ(service.cancels(), 0U);
    EXPECT_FALSE(client->isConnected());
}

// The loop's events are counted: what is told costs none for each request.
TEST_P(BackendRequests, OneThatFailsCostsTheSameAmongMany)
{
    constexpr unsigned MANY = 20'000;
    withdraw();
    Outcomes told;
    for (unsigned i = 0; i < MANY; ++i) {
        told.push_back(client->request(retrieve("/echo")));
        const auto cancelled = client->request(retrieve("/echo"));
        client->cancel(*cancelled);
        ASSERT_TRUE(cancelled->isDestroyed);
    }
    EXPECT_EQ(told.front()->status, 0) << "never inside `request`";
    EXPECT_LT(scheduler->runReady(), MANY / 100);
    EXPECT_EQ(countOf(told, [](const auto& outcome) { return outcome->status == 503; }), MANY);
}

TEST_P(BackendRequests, HandlerThatIssuesAgainAtOnceGetsThrough)
{
    withdraw();
    Client issuer("who asks again");
    std::shared_ptr<Outcome> last;
    unsigned left = 10'000;
    const std::function<void()> issue = [&] {
        auto handler = issuer.makeHandler(last);
        last->onEnd = [&] { last->status != 0 && left-- > 0 ? issue() : void(); };
        client->api().request(retrieve("/echo", "there"), std::move(handler));
    };
    issue();
    ASSERT_EQ(provide(*server, "/service", service), locator);
    settle();
    EXPECT_THAT(last->values, ElementsAre("there"));
    EXPECT_TRUE(client->isConnected());
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
        CheckedService first;
        CheckedService second;
        const std::string at = provide(*server, "/quick", first);
        Client quick(backend(), at);
        settle();
        const auto before = quick.request(retrieve("/stream"));
        std::shared_ptr<Outcome> between;
        const auto isOfSecond = [&] { return between && between->connection == 2; };
        quick.onChange = [&] {
            EXPECT_TRUE(before->status == 503 && (!between || between->hasEnded() || isOfSecond()));
        };
        fewSteps();
        server->unprovide(url(at));
        first.withdrawn();
        EXPECT_EQ(first.open(), 0U) << "its requests are cancelled";
        ASSERT_EQ(provide(*server, "/quick", second), at);
        fewSteps();
        between = quick.request(retrieve("/stream"));
        settle();
        EXPECT_EQ(quick.connections(), 2U);
        EXPECT_EQ(between->status, isOfSecond() ? 0 : 503);
        EXPECT_EQ(second.open(), isOfSecond() ? 1U : 0U) << "what came before the disconnect is cancelled";
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
    const auto expectEnd = [](const Outcome& outcome, int status, const std::string& text) {
        EXPECT_EQ(outcome.status, status);
        EXPECT_THAT(outcome.errorText, HasSubstr(text));
    };
    const std::string size =
        "bytes, more than the 102400 of \"comm\", \"max_message_bytes\" in the configuration of both processes";
    expectEnd(*asked, 413, size);
    expectEnd(*wide, 413, "path and headers, more than the 61440");

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
    expectEnd(*once, 413, size);
    EXPECT_THAT(once->values, IsEmpty());
    expectEnd(*stream, 413, size);
    EXPECT_THAT(stream->values, ElementsAre("small"));
    expectEnd(*odd, 500, "not UTF-8");
    EXPECT_EQ(service.cancels(), 2U) << "of those that the service had not ended";
}

TEST_P(BackendRequests, AClientObjectOutlivesItsBackend)
{
    backend().stop();
    client->forgetBackend(); // no listener call after `stop`
    clientBackend.reset();
    server.reset();
    const auto after = client->request(retrieve("/echo"));
    EXPECT_EQ(after->status, 503);
    EXPECT_EQ(after->handle, IKesaApi::UNDEFINED_REQUEST_HANDLE);
}

} // namespace
} // namespace kesa::commadapter::test
