// The runtime is played by the test: it tells what a registry and the connections would, in the orders they may have.
#include "PlayedRuntime.h"

#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/ICallWatch.h>
#include <comm/Reactor.h>
#include <comm/SimulatedScheduler.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/use.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>

#include <atomic>
#include <future>
#include <thread>
#include <tracing/CapturingSink.h>

namespace {

using namespace kesa;
using namespace std::chrono_literals;
using namespace kesa::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Use : public testing::Test {
protected:
    Use()
    {
        client->onChange([this](bool isConnected) { told.push_back(isConnected ? "connected" : "lost"); });
        runtime.take();
    }
    std::unique_ptr<IResponseHandler<Response>> listener()
    {
        return handler<Response>([this](const Response& r) { told.emplace_back(r.getPayload().text()); },
                                 [this](const Response& e) { told.push_back(std::to_string(e.getStatus())); },
                                 [this] { told.push_back("done"); });
    }
    void connect()
    {
        runtime.added("ipc://p/p");
        runtime.connected(service);
        runtime.take();
        told.clear();
    }
    std::string call() { return get(*client, Request("retrieve", "/"), 0s).error; }
    std::vector<std::string> takeTold() { return std::exchange(told, {}); }

    PlayedRuntime runtime;
    std::shared_ptr<PlayedService> service = std::make_shared<PlayedService>();
    std::shared_ptr<Client> client = use(runtime, "/p");
    std::vector<std::string> told;
};

TEST_F(Use, ConnectsToWhatIsRegistered)
{
    EXPECT_EQ(client->reason(), "nobody is known to provide '/p': why /p");
    EXPECT_EQ(call(), "503: nobody is known to provide '/p': why /p; wait with whenConnected, or use kesa::connect");
    runtime.added("ipc://p/p");
    EXPECT_EQ(client->reason(), "'/p' is known at ipc://p/p and not connected; 'kesactl why /p' says more");
    runtime.played->connection = "it is stopped";
    EXPECT_EQ(call(), "503: '/p' is known at ipc://p/p and not connected: it is stopped; 'kesactl why /p' says more; "
                      "wait with whenConnected, or use kesa::connect");
    EXPECT_FALSE(client->isConnected());
    runtime.connected(service);
    EXPECT_EQ(call(), "504: no answer within 0 ms; '/p' is connected and silent: it is stopped");
    runtime.played->connection.clear();
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(client->reason(), "");
    client->whenConnected([this] { told.push_back("at once"); });
    EXPECT_THAT(runtime.take(), ElementsAre("resolve ipc://p/p"));
    EXPECT_THAT(takeTold(), ElementsAre("connected", "at once"));
    EXPECT_EQ(call(), "504: no answer within 0 ms; '/p' is connected; 'kesactl why /p' says more");
    EXPECT_EQ(service->open(), 0U) << "cancelled";
}

TEST_F(Use, GoesOnWhileOnlyTheRegistryIsAway)
{
    connect();
    const Disposable feed = client->follow(Request("retrieve", "/feed"), listener());
    service->value("1");
    runtime.removed();
    service->value("2");
    runtime.added("ipc://p/p");
    service->value("3");
    EXPECT_THAT(takeTold(), ElementsAre("1", "2", "3"));
    EXPECT_THAT(runtime.take(), IsEmpty());
    EXPECT_EQ(service->requests.size(), 1U);
    EXPECT_EQ(service->requests.front().getHeaders()[headers::RESPONSE_SEMANTIC],
              util::config::Value(responsesemantics::PERSISTENT_STREAM));
}

TEST_F(Use, LetsGoWhenItIsReallyGone)
{
    connect();
    runtime.removed();
    runtime.lost();
    EXPECT_THAT(runtime.take(), ElementsAre("release ipc://p/p"));
    EXPECT_THAT(takeTold(), ElementsAre("lost"));
    connect();
    runtime.lost(); // the registry still knows it: it may be back in a moment
    EXPECT_THAT(runtime.take(), IsEmpty());
    EXPECT_EQ(client->reason(), "the connection to '/p' is lost; 'kesactl why /p' says more");
    runtime.connected(service);
    runtime.lost();
    EXPECT_THAT(takeTold(), ElementsAre("lost", "connected", "lost"));
    runtime.removed();
    EXPECT_THAT(runtime.take(), ElementsAre("release ipc://p/p"));
    EXPECT_EQ(client->reason(), "nobody is known to provide '/p': why /p");
}

TEST_F(Use, ResolvesAnewWhatIsElsewhere)
{
    connect();
    const Disposable feed = client->follow(Request("retrieve", "/feed"), listener());
    client->request(Request("retrieve", "/"), listener());
    runtime.added("ipc://other/p");
    EXPECT_THAT(runtime.take(), ElementsAre("release ipc://p/p", "resolve ipc://other/p"));
    EXPECT_THAT(takeTold(), ElementsAre("lost"));
    EXPECT_EQ(service->open(), 1U) << "the stream is cancelled, the request ends with the client object";
    runtime.before->onNext(Api(service)); // late
    EXPECT_FALSE(client->isConnected());
    const auto other = std::make_shared<PlayedService>();
    runtime.connected(other);
    other->value("1");
    service->end(503);
    EXPECT_THAT(takeTold(), ElementsAre("connected", "1", "503"));
}

TEST_F(Use, AnErrorOfTheResolvingIsOverWithTheNextRecord)
{
    runtime.added("tcp://p/p");
    Response error = Response::createErrorResponse(404);
    headers::appendReason(error, "no backend reaches tcp://p/p");
    runtime.resolving->onError(error);
    EXPECT_EQ(client->reason(), "'/p' cannot be reached: no backend reaches tcp://p/p; 'kesactl why /p' says more");
    runtime.added("tcp://p/p");
    EXPECT_THAT(runtime.take(), ElementsAre("resolve tcp://p/p", "release tcp://p/p", "resolve tcp://p/p"));
}

TEST_F(Use, FollowsAgainAfterEachReconnection)
{
    auto following = client->follow(Request("retrieve", "/feed"), listener());
    connect();
    service->value("1");
    service->end(503);
    runtime.lost();
    runtime.connected(service);
    service->value("2");
    EXPECT_EQ(service->requests.size(), 2U);
    EXPECT_THAT(takeTold(), ElementsAre("1", "lost", "connected", "2"));
    runtime.lost();
    runtime.connected(service);
    following.dispose();
    EXPECT_EQ(service->handlers.back(), nullptr);
    runtime.lost();
    runtime.connected(service);
    EXPECT_EQ(service->requests.size(), 3U);

    const Disposable none = client->follow(Request("retrieve", "/none"), listener());
    told.clear();
    service->end(404);
    runtime.lost();
    runtime.connected(service);
    EXPECT_THAT(takeTold(), ElementsAre("404", "lost", "connected"));
    EXPECT_EQ(service->requests.size(), 4U);
}

TEST_F(Use, LetsWhatAHandlerThrowsReachTheLoopWhichNamesIt)
{
    connect();
    const auto fail = [](const Response&) { throw 7; };
    const Disposable feed = client->follow(Request("retrieve", "/feed"), handler<Response>(fail, fail));
    EXPECT_THROW(service->value("1"), int);
    EXPECT_THROW(service->end(404), int);
    client->request(Request("retrieve", "/"), handler<Response>([](const Response&) {}, fail));
    EXPECT_THROW(service->end(404), int);
    client->onChange([](bool isConnected) { isConnected ? void() : throw 7; });

    struct Loop final : comm::ICallWatch {
        void tellInside(const char* operation, const std::string& subject, const std::function<void()>& call) override
        {
            name = operation + (" " + subject);
            call();
        }
        std::string name;
    } loop;
    const comm::ICallWatch::Scope scope(&loop);
    EXPECT_THROW(runtime.added("ipc://other/p"), int);
    EXPECT_EQ(loop.name, "onChange /p");
}

class SimulatedTime {
protected:
    SimulatedTime() { comm::Scheduler::install(&scheduler); }
    SimulatedTime(const SimulatedTime&) = delete;
    SimulatedTime& operator=(const SimulatedTime&) = delete;
    ~SimulatedTime() { comm::Scheduler::install(nullptr); }

    comm::SimulatedScheduler scheduler{1};
};

/// Answers come on an I/O loop, whose clock the test has in its hand.
class UseOnALoop : public SimulatedTime, public Use {
protected:
    UseOnALoop() { connect(); }
    ~UseOnALoop() override { loop->stop(); }

    /// `service` brings so many values at once and ends the stream with 503.
    void endsAfter(int values)
    {
        loop->post([this, values] {
            for (int i = 0; i < values; ++i) {
                service->value("v");
            }
            service->end(503);
        });
        scheduler.runReady();
    }
    /// When it is asked for the next time, in ms from now; it must not be before.
    comm::TimeNs pause()
    {
        const std::size_t before = service->requests.size();
        const comm::TimeNs since = comm::now();
        while (service->requests.size() == before && comm::now() < since + 10 * comm::SECOND) {
            scheduler.runFor(comm::MILLISECOND);
        }
        EXPECT_EQ(service->requests.size(), before + 1);
        return (comm::now() - since) / comm::MILLISECOND;
    }

    std::shared_ptr<comm::Reactor> loop = comm::Scheduler::current().makeReactor("io");
};

TEST_F(UseOnALoop, AsksTheRegistryWhetherNobodyIsThereBeforeItSaysSo)
{
    const std::string before = "504: not connected within 1000 ms: nobody is known to provide '/q': ";
    EXPECT_EQ(kesa::connect(runtime, "/q", 1s).error, before + "no answer for /q");
    const auto registry = std::make_shared<ResourceHandler>();
    runtime.registryAtOnce = registry; // which answers 404 to a command it does not know
    const comm::TimeNs since = comm::now();
    EXPECT_EQ(kesa::connect(runtime, "/q", 1s).error, before + "nobody at /q");
    EXPECT_EQ(comm::now() - since, comm::SECOND) << "not longer for the question";
    runtime.take();
    EXPECT_EQ(kesa::connect(runtime, "/q", 0s).status, 504);
    EXPECT_THAT(runtime.take(), ElementsAre("track /q", "untrack")) << "not asked";
}

TEST_F(UseOnALoop, AsksAgainAfterA503WithAPauseThatGrowsUntilAStreamLasts)
{
    const ::tracing::TraceCapture traces("KESA_EASE");
    auto following = client->follow(Request("retrieve", "/feed"), listener());
    for (const int values : {0, 1, 2, 9, 1, 0, 1, 1, 1}) {
        endsAfter(values);
        takeTold();
        const comm::TimeNs expected = std::min<comm::TimeNs>(10LL << (service->requests.size() - 1), 1000);
        EXPECT_EQ(pause(), expected);
    }
    scheduler.runFor(2 * comm::SECOND); // it lasts, but without a value
    endsAfter(0);
    EXPECT_EQ(pause(), 1000);
    const std::string line = "[follow] '/p': the stream of 'retrieve /feed' has ended and is asked for again, so "
                             "values may be missing: 503";
    EXPECT_THAT(traces.take(),
                ElementsAre(HasSubstr(line), HasSubstr("; and 4 more since "), HasSubstr(line), HasSubstr(line)))
        << "those that have brought values, and the first";
    for (int i = 0; i < 3; ++i) {
        scheduler.runFor(i == 0 ? 2 * comm::SECOND : 600 * comm::MILLISECOND);
        endsAfter(1);
        EXPECT_EQ(pause(), 10);
    }
    EXPECT_THAT(traces.take(), ElementsAre(HasSubstr(line), HasSubstr("; and 1 more since the last such line")));

    endsAfter(0);
    runtime.lost();
    runtime.connected(service);
    const std::size_t asked = service->requests.size();
    scheduler.runFor(2 * comm::SECOND);
    EXPECT_EQ(service->requests.size(), asked) << "by the connection, at once, and by no timer any more";
    endsAfter(0);
    EXPECT_EQ(pause(), 10) << "a new connection, a new chance";

    endsAfter(0);
    following.dispose();
    scheduler.runFor(2 * comm::SECOND);
    EXPECT_EQ(service->requests.size(), asked + 1);
}

TEST_F(Use, CallsNothingAfterItsEnd)
{
    connect();
    const Disposable feed = client->follow(Request("retrieve", "/feed"), listener());
    client->request(Request("retrieve", "/"), listener());
    client->end();
    EXPECT_THAT(takeTold(), ElementsAre("503")) << "of the request";
    EXPECT_THAT(runtime.take(), ElementsAre("untrack", "release ipc://p/p"));
    EXPECT_EQ(service->open(), 0U);
    runtime.lost();
    runtime.added("ipc://p/p");
    const auto sink = std::make_shared<::tracing::CapturingSink>("KESA_EASE");
    ::tracing::setSink(sink);
    client->onChange([this](bool) { told.push_back("late"); });
    EXPECT_THAT(sink->take(), ElementsAre("3 [onChange] a handler of the client of '/p' will hear nothing: the client "
                                          "has ended; kesa::use makes another"));
    ::tracing::setSink(nullptr);
    const Disposable late = client->follow(Request("retrieve", "/feed"), listener());
    client->end();
    EXPECT_THAT(runtime.take(), IsEmpty());
    EXPECT_EQ(call(), "503: the client has ended; kesa::use makes another");
    EXPECT_THAT(takeTold(), ElementsAre("503")) << "of the last, inside the call";
}

/// Runs the stream's handler, which the test gives, in this thread, as the I/O loop does.
TEST_F(Use, MayBeFollowedWhileAnyHandlerRuns)
{
    connect();
    const auto followElsewhere = [this] {
        std::async(std::launch::async, [this] {
            for (int i = 0; i < 20; ++i) { // so many that those that are over are looked for
                client->follow(Request("retrieve", "/other"), handler<Response>([](const Response&) {})).dispose();
            }
        }).get();
    };
    const Disposable stream =
        client->follow(Request("retrieve", "/feed"), handler<Response>([&](const Response&) { followElsewhere(); }));
    service->value("1"); // a follow that waits for the running handler would never return
    client->onChange([&](bool) { followElsewhere(); });
    runtime.lost();
    EXPECT_EQ(service->open(), 0U) << "each was cancelled";
}

TEST_F(Use, EveryEndWaitsForAHandlerThatRuns)
{
    for (const bool isStream : {true, false}) {
        client = use(runtime, "/p");
        connect();
        std::atomic<bool> hasReturned{false};
        bool wasEarly = false;
        std::thread second;
        auto held = handler<Response>(
            [&](const Response&) {
                client->end();
                second = std::thread([&] {
                    client->end();
                    hasReturned = true;
                });
                for (int i = 0; i < 1000; ++i) { // time for one that does not wait
                    std::this_thread::yield();
                }
                wasEarly = hasReturned;
            },
            [](const Response&) {});
        if (isStream) {
            static_cast<void>(client->follow(Request("retrieve", "/feed"), std::move(held)));
        } else {
            client->request(Request("retrieve", "/"), std::move(held));
        }
        const auto call = std::move(service->handlers.back()); // whose call the cancel does not destroy
        call->onNext(Response(200, Payload()));
        second.join();
        EXPECT_FALSE(wasEarly) << isStream;
    }
}

TEST_F(Use, SaysSoWhenTheRuntimeEnds)
{
    connect();
    const Disposable feed = client->follow(Request("retrieve", "/feed"), listener());
    runtime.end();
    EXPECT_THAT(takeTold(), ElementsAre("lost", "503"));
    EXPECT_FALSE(client->isConnected());
    EXPECT_EQ(call(), "503: the runtime has ended, and with it this client; end the runtime last");
    EXPECT_EQ("503: " + client->reason(), call());

    const Disposable after = client->follow(Request("retrieve", "/feed"), listener());
    EXPECT_THAT(takeTold(), ElementsAre("503"));
    client = use(runtime, "/p");
    const Disposable never = client->follow(Request("retrieve", "/feed"), listener());
    runtime.tracking->onError(Response::createErrorResponse(400, "no path"));
    runtime.end();
    EXPECT_EQ(client->reason(), "no path") << "it had ended before";
    EXPECT_EQ(call(), "400: no path");
    EXPECT_THAT(takeTold(), ElementsAre("400"));
    const Disposable late = client->follow(Request("retrieve", "/feed"), listener());
    EXPECT_THAT(takeTold(), ElementsAre("400"));
}

TEST_F(Use, WithoutARuntimeIsAReason)
{
    const std::string none = "this process has no runtime; make a kesa::Runtime first in main, and let it end last";
    EXPECT_EQ(kesa::use("/p")->reason(), none);
    EXPECT_EQ(kesa::connect("/p", 1s).error, "503: " + none);
    const GetResult result = kesa::get("/p", Request("retrieve", "/"), 1s);
    EXPECT_EQ(std::to_string(result.status) + ' ' + result.error, "503 503: " + none);
}

TEST_F(Use, AHandlerMayEndIt)
{
    client->onChange([this](bool isConnected) {
        if (!isConnected) {
            client.reset();
        }
    });
    client->onChange([this](bool) { told.push_back("second"); });
    connect();
    runtime.added("ipc://other/p");
    EXPECT_THAT(takeTold(), ElementsAre("lost"));
    EXPECT_THAT(runtime.take(), ElementsAre("untrack", "release ipc://p/p"));

    const auto drop = [this] {
        client.reset();
        runtime.end(); // so nobody else keeps what is being called
    };
    client = use(runtime, "/p");
    connect();
    client->onChange([&drop](bool) { drop(); });
    EXPECT_EQ(client, nullptr);
    client = use(runtime, "/p");
    connect();
    client->request(Request("retrieve", "/"),
                    handler<Response>([](const Response&) {}, [&drop](const Response&) { drop(); }));
    client->end();
    EXPECT_EQ(client, nullptr);
}

TEST_F(Use, ConnectWaitsOrSaysWhyNot)
{
    EXPECT_EQ(kesa::connect(runtime, "/p", std::chrono::nanoseconds::min()).error,
              "504: not connected within 0 ms: nobody is known to provide '/p': no answer for /p");
    EXPECT_EQ(runtime.take().back(), "untrack") << "nothing is left";
    const GetResult nobody = kesa::get(runtime, "/p", Request("retrieve", "/"), 0s);
    EXPECT_EQ(nobody.error, "504: not connected within 0 ms: nobody is known to provide '/p': no answer for /p");
    EXPECT_EQ(nobody.status, 504);
    EXPECT_EQ(runtime.take().back(), "untrack");

    comm::ActiveObject loop("application");
    ConnectResult result;
    comm::ActiveObject updater("KesaRuntimeImpl.m_updater");
    GetResult answer;
    comm::runAndWait(updater, [&] {
        result = kesa::connect(runtime, "/p", 1s);
        answer = kesa::get(runtime, "/p", Request("retrieve", "/"), 1s);
    });
    EXPECT_THAT(result.error, testing::StartsWith("kesa::connect can not wait on 'KesaRuntimeImpl.m_updater'"));
    EXPECT_THAT(answer.error, testing::StartsWith("kesa::get can not wait on 'KesaRuntimeImpl.m_updater'"));
    EXPECT_THAT(runtime.take(), IsEmpty());
}

} // namespace
