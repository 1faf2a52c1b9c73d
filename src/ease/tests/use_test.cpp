// The runtime is played by the test: it tells what a registry and the connections would, in the orders they may have.
// What a user sees of that in whole processes is shown by the scenarios use_*.
#include "PlayedRuntime.h"

#include <AssertionRecorder.h>
#include <SimulatedTime.h>
#include <comm/Reactor.h>
#include <ease/registryClient.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/on.h>
#include <kesa/ease/provide.h>
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

const std::string NOBODY = "nobody is known to provide '/p': why /p";
const std::string MORE = "; kesactl why /p says more";

class Use : public testing::Test {
protected:
    Use()
    {
        client->onChange([this](bool isConnected) { told.push_back(isConnected ? "connected" : "lost"); });
        runtime.take();
    }
    void connect()
    {
        runtime.added("ipc://p/p");
        runtime.connected(service);
        runtime.take();
        told.clear();
    }
    std::string call() { return get(*client, Request("retrieve", "/"), 0s).error; }
    void request() { client->request(Request("retrieve", "/"), noteTexts(told)); }
    [[nodiscard]] Disposable follow() { return client->follow(Request("retrieve", "/feed"), noteTexts(told)); }
    Lines takeTold() { return std::exchange(told, {}); }
    /// What was asked of the runtime, what was told, and the reason.
    Lines seen()
    {
        Lines all = runtime.take();
        all.insert(all.end(), told.begin(), told.end());
        all.push_back(client->reason());
        told.clear();
        return all;
    }

    Lines told; // first: handlers note their end
    PlayedRuntime runtime;
    std::shared_ptr<PlayedService> service = std::make_shared<PlayedService>();
    std::shared_ptr<Client> client = use(runtime, "/p");
};

TEST_F(Use, FollowsWhatTheRegistryAndTheConnectionTell)
{
    const std::string known = "ipc://p/p and not connected" + MORE;
    EXPECT_THAT(seen(), ElementsAre(NOBODY));
    runtime.added("ipc://p/p");
    EXPECT_THAT(seen(), ElementsAre("resolve ipc://p/p", "'/p' is known at " + known));
    runtime.connected(service);
    runtime.removed(); // the registry may be away
    runtime.added("ipc://p/p");
    EXPECT_THAT(seen(), ElementsAre("connected", ""));
    runtime.lost(); // it may be back in a moment
    EXPECT_FALSE(client->isConnected());
    EXPECT_THAT(seen(), ElementsAre("lost", "the connection to '/p' is lost" + MORE));
    runtime.connected(service);
    runtime.removed();
    runtime.lost();
    EXPECT_THAT(seen(), ElementsAre("release ipc://p/p", "connected", "lost", NOBODY));
    runtime.added("ipc://p/p");
    runtime.removed();
    EXPECT_THAT(seen(), ElementsAre("resolve ipc://p/p", "release ipc://p/p", NOBODY));

    connect();
    runtime.added("ipc://other/p");
    runtime.before->onNext(Api(service)); // late
    EXPECT_THAT(seen(), ElementsAre("release ipc://p/p", "resolve ipc://other/p", "lost",
                                    "'/p' is known at ipc://other/p and not connected" + MORE));
    Response error = Response::createErrorResponse(404);
    headers::appendReason(error, "no backend reaches it");
    runtime.resolving->onError(error);
    EXPECT_THAT(seen(), ElementsAre("release ipc://other/p", "'/p' cannot be reached: no backend reaches it" + MORE));
    runtime.added("ipc://other/p");
    EXPECT_THAT(runtime.take(), ElementsAre("resolve ipc://other/p")) << "the error is over";
}

TEST_F(Use, SaysWhyACallHasNoAnswer)
{
    const std::string wait = "; wait with whenConnected, or use kesa::connect";
    EXPECT_EQ(call(), "503: " + NOBODY + wait);
    runtime.added("ipc://p/p");
    runtime.played->connection = "it is stopped";
    EXPECT_EQ(call(), "503: '/p' is known at ipc://p/p and not connected: it is stopped" + MORE + wait);
    client->whenConnected([this] { told.emplace_back("then"); });
    const auto executor = std::make_shared<comm::LoopHold>("executor", [] { return 70 * comm::MILLISECOND; });
    runtime.played->held = {executor};
    const auto describe = [] { return std::string("the handler of onChange for '/a'"); };
    const comm::LoopHold::Call held(*executor, describe);
    EXPECT_EQ(call(), "503: '/p' is known at ipc://p/p and not connected: this process's executor has been held for 70 "
                      "ms by the handler of onChange for '/a', so it hears of nothing: leave what takes long or waits "
                      "to a thread of your own, as kesa::on does" +
                          wait);
    runtime.connected(service); // from now on only the I/O loop can be in the way
    client->whenConnected([this] { told.emplace_back("at once"); });
    EXPECT_THAT(takeTold(), ElementsAre("connected", "then", "at once"));
    EXPECT_EQ(call(), "504: no answer within 0 ms; '/p' is connected and silent: it is stopped");
    runtime.played->connection.clear();
    EXPECT_EQ(call(), "504: no answer within 0 ms; '/p' is connected" + MORE);
    EXPECT_EQ(service->open(), 0U) << "cancelled";
}

TEST_F(Use, RefusesToWaitOnTheLoopThatServesIt)
{
    const auto worker = std::make_shared<comm::ActiveObject>("worker");
    const auto asked = [&worker](IKesaApi& api) {
        std::string error;
        comm::runAndWait(*worker, [&] { error = get(api, Request("retrieve", "/"), 0s).error; });
        return error;
    };
    const std::string itself = ", which is served on the same loop (kesa::on): it would wait for itself; call request "
                               "with a handler, or serve the one that asks on a loop of its own";
    const auto served = on(worker, Api(service));
    EXPECT_EQ(asked(*served), "kesa::get can not wait on the loop 'worker' for the service" + itself);
    const auto registration = provide(runtime, "/p", served);
    runtime.registrator->onNext(PlayedRuntime::record("ipc://p/p"));
    connect();
    EXPECT_EQ(asked(*client), "kesa::get can not wait on the loop 'worker' for '/p'" + itself);
    const auto waited = HasSubstr("504: no answer");
    EXPECT_THAT(call(), waited) << "in another thread";
    runtime.added("ipc://other/p");
    runtime.connected(service);
    EXPECT_THAT(asked(*client), waited) << "another provides it";
    runtime.added("ipc://p/p");
    runtime.connected(service);
    EXPECT_THAT(asked(*client), HasSubstr(itself));
    runtime.registrator.reset();
    EXPECT_THAT(asked(*client), waited) << "this process does not provide it any more";
}

TEST_F(Use, FollowsAStreamOverEachConnection)
{
    auto feed = follow();
    connect();
    EXPECT_EQ(service->requests.front().getHeaders()[headers::RESPONSE_SEMANTIC],
              util::config::Value(responsesemantics::PERSISTENT_STREAM));
    service->value("1");
    service->end(503);
    runtime.lost();
    runtime.connected(service);
    service->value("2");
    EXPECT_THAT(takeTold(), ElementsAre("1", "lost", "connected", "2"));
    request();
    const auto other = std::make_shared<PlayedService>();
    runtime.added("ipc://other/p");
    EXPECT_EQ(service->handlers[1], nullptr) << "the stream is cancelled";
    EXPECT_NE(service->handlers[2], nullptr) << "the request ends with the client object";
    runtime.connected(other);
    other->value("3");
    service->end(503);
    EXPECT_THAT(takeTold(), ElementsAre("lost", "connected", "3", "503", "~"));
    feed.dispose();
    EXPECT_EQ(other->open(), 0U);
    const Disposable none = follow();
    other->end(404);
    runtime.lost();
    runtime.connected(other);
    EXPECT_EQ(other->requests.size(), 2U);
    EXPECT_THAT(takeTold(), ElementsAre("~", "404", "~", "lost", "connected"));
}

TEST_F(Use, LetsWhatAHandlerThrowsReachTheLoop)
{
    connect();
    const auto fail = [](const Response&) { throw 7; };
    const Disposable feed = client->follow(Request("retrieve", "/feed"), handler<Response>(fail, fail));
    EXPECT_THROW(service->value("1"), int);
    EXPECT_THROW(service->end(404), int);
    client->request(Request("retrieve", "/"), handler<Response>([](const Response&) {}, fail));
    EXPECT_THROW(service->end(404), int);
    client->onChange([](bool isConnected) { isConnected ? void() : throw 7; });
    EXPECT_THROW(runtime.lost(), int);
}

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
    runtime.registryAtOnce = std::make_shared<ResourceHandler>(); // which answers 404 to a command it does not know
    const comm::TimeNs since = comm::now();
    EXPECT_EQ(kesa::connect(runtime, "/q", 1s).error, before + "nobody at /q");
    EXPECT_EQ(comm::now() - since, comm::SECOND) << "not longer for the question";
    runtime.take();
    const GetResult late = kesa::get(runtime, "/q", Request("retrieve", "/"), std::chrono::nanoseconds::min());
    EXPECT_EQ(late.error, "504: not connected within 0 ms: nobody is known to provide '/q': no answer for /q");
    EXPECT_EQ(late.status, 504);
    EXPECT_THAT(runtime.take(), ElementsAre("track /q", "untrack")) << "not asked, and nothing is left";
}

TEST_F(UseOnALoop, AsksAgainAfterA503WithAPauseThatGrowsUntilAStreamLasts)
{
    const ::tracing::TraceCapture traces("KESA_EASE");
    auto feed = follow();
    const struct {
        int ms, values;
        comm::TimeNs pause;
    } streams[] = {{0, 0, 10},  {0, 1, 20},   {0, 2, 40},      {0, 9, 80},    {0, 1, 160},  {0, 0, 320},
                   {0, 1, 640}, {0, 1, 1000}, {2000, 0, 1000}, {2000, 1, 10}, {600, 1, 10}, {600, 1, 10}};
    for (const auto& stream : streams) {
        scheduler.runFor(stream.ms * comm::MILLISECOND);
        endsAfter(stream.values);
        EXPECT_EQ(pause(), stream.pause) << "after " << stream.ms << " ms with " << stream.values;
    }
    const std::string line = "[follow] '/p': the stream of 'retrieve /feed' has ended and is asked for again, so "
                             "values may be missing: 503";
    EXPECT_THAT(traces.take(), ElementsAre(HasSubstr(line), HasSubstr("; and 4 more since "), HasSubstr(line),
                                           HasSubstr(line), HasSubstr("; and 1 more since the last such line")))
        << "those that have brought values, and the first";

    endsAfter(0);
    runtime.lost();
    scheduler.runFor(2 * comm::SECOND); // nobody is there to be asked
    runtime.connected(service);
    const std::size_t asked = service->requests.size();
    scheduler.runFor(2 * comm::SECOND);
    EXPECT_EQ(service->requests.size(), asked) << "by the connection, at once, and by no timer any more";
    endsAfter(0);
    EXPECT_EQ(pause(), 10) << "a new connection, a new chance";
    endsAfter(0);
    feed.dispose();
    scheduler.runFor(2 * comm::SECOND);
    EXPECT_EQ(service->requests.size(), asked + 1);
}

TEST_F(UseOnALoop, TracesNothingOfAStreamThatTheUserHasNotAskedFor)
{
    const std::shared_ptr<Client> registry = detail::registryClient(&runtime);
    runtime.added("ipc://kesa-registryd/registry");
    runtime.connected(service);
    const ::tracing::TraceCapture traces("KESA_EASE");
    const auto known = registry->follow(Request("retrieve", "/p"), noteTexts(told));
    endsAfter(1);
    EXPECT_EQ(pause(), 10);
    EXPECT_THAT(traces.take(), IsEmpty());
}

TEST_F(UseOnALoop, CutsAStreamThatALoopOfOnesOwnTakesTooSlowly)
{
    const ::tracing::TraceCapture traces("KESA_EASE");
    const auto worker = std::make_shared<comm::ActiveObject>("worker");
    const auto noting = [&] {
        std::unique_ptr<IResponseHandler<Response>> handler = std::make_unique<NotingHandler<Response>>(
            told, [](const Response& response) { return std::to_string(response.getPayload().size()); });
        return on(worker, std::move(handler));
    };
    const std::string value(detail::LoopRoom::MOST_BYTES / 2, 'v'); // two are too much, with what each adds
    const auto bring = [&](int values) {
        loop->post([&, values] {
            for (int i = 0; i < values && service->handlers.back(); ++i) {
                service->value(value);
            }
        });
    };
    const std::string size = std::to_string(value.size());
    const auto feed = client->follow(Request("retrieve", "/feed"), noting());
    bring(3);
    scheduler.runReady();
    EXPECT_EQ(service->open(), 0U);
    EXPECT_EQ(pause(), 10);
    bring(1);
    scheduler.runReady();
    EXPECT_EQ(service->open(), 1U);
    EXPECT_THAT(takeTold(), ElementsAre(size, size)) << "the handler hears of no end";
    EXPECT_THAT(runtime.played->tooSlow, ElementsAre("/p worker")) << "for tools";
    EXPECT_THAT(traces.take(), ElementsAre(HasSubstr("so values may be missing: 503: too slow: a handler given to "
                                                     "kesa::on takes values on the loop 'worker' more slowly")));

    loop->post([&] { service->handlers.back()->onError(Response::createErrorResponse(503, "too slow")); });
    scheduler.runFor(comm::SECOND);
    EXPECT_THAT(runtime.played->tooSlow, ElementsAre("/p worker", "/p worker")) << "the provider gave it up";
    traces.take();

    client->request(Request("retrieve", "/feed"), noting());
    bring(3);
    scheduler.runReady();
    EXPECT_THAT(takeTold(), ElementsAre(size, HasSubstr("503: too slow: "))) << "for whom nobody asks again";

    worker->stop();
    EXPECT_TRUE(service->handlers[2]->onNext(Response())) << "nobody takes what the follower gets any more";
    scheduler.runFor(2 * comm::SECOND);
    EXPECT_EQ(service->requests.size(), 4U) << "and nobody asks for it";
    EXPECT_EQ(service->handlers[2], nullptr) << "it has been cancelled";
    EXPECT_THAT(traces.take(), ElementsAre(HasSubstr("the loop that was given to kesa::on for 'retrieve /feed' has")));
}

TEST_F(Use, CallsNothingAfterItsEnd)
{
    connect();
    const Disposable feed = follow();
    request();
    client->end();
    const std::string ended = "503: the client has ended; kesa::use makes another";
    EXPECT_THAT(takeTold(), ElementsAre("~", ended, "~"));
    EXPECT_THAT(runtime.take(), ElementsAre("untrack", "release ipc://p/p"));
    EXPECT_EQ(service->open(), 0U);
    runtime.lost();
    runtime.added("ipc://p/p");
    client->end();
    const ::tracing::TraceCapture traces("KESA_EASE");
    client->onChange([this](bool) { told.emplace_back("late"); });
    EXPECT_THAT(traces.take(), ElementsAre("3 [onChange] a handler of the client of '/p' will hear nothing: the client "
                                           "has ended; kesa::use makes another"));
    const Disposable late = follow();
    request();
    EXPECT_THAT(takeTold(), ElementsAre(ended, "~", ended, "~")) << "inside the call";
    EXPECT_THAT(runtime.take(), IsEmpty());
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
        const auto end = [&](const Response&) {
            client->end();
            second = std::thread([&] {
                client->end();
                hasReturned = true;
            });
            for (int i = 0; i < 1000; ++i) { // time for one that does not wait
                std::this_thread::yield();
            }
            wasEarly = hasReturned;
        };
        auto held = handler<Response>(end, [](const Response&) {});
        isStream ? static_cast<void>(client->follow(Request("retrieve", "/feed"), std::move(held)))
                 : static_cast<void>(client->request(Request("retrieve", "/"), std::move(held)));
        const auto call = std::move(service->handlers.back()); // whose call the cancel does not destroy
        call->onNext(Response(200, Payload()));
        second.join();
        EXPECT_FALSE(wasEarly) << isStream;
    }
}

TEST_F(Use, RefusesWithoutAHandlerOrForNoResourceAndSaysWhatToDo)
{
    AssertionRecorder misuse;
    connect();
    client->onChange({});
    client->follow(Request("retrieve", "/feed"), nullptr).dispose();
    EXPECT_EQ(client->request(Request("retrieve", "/"), nullptr), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    provide(runtime, "/q", service)->whenKnown({});
    EXPECT_EQ(on(nullptr, std::unique_ptr<IResponseHandler<int>>()), nullptr);
    EXPECT_EQ(on(nullptr, std::shared_ptr<IKesaApi>()), nullptr);
    takeTold();
    client->follow(Request("retrieve", "feed"), noteTexts(told)).dispose();
    client->request(Request("retrieve", "feed"), noteTexts(told));
    const std::string none =
        "400: 'feed' is no path; it begins with '/', has no '//', '.' or '..' and no '/' at its end";
    EXPECT_THAT(takeTold(), ElementsAre(none, "~", none, "~"));
    EXPECT_TRUE(service->requests.empty());
    const auto saysSo = [](const char* where) {
        return HasSubstr(where + std::string(" is given no handler: give it"));
    };
    EXPECT_THAT(misuse.take(),
                ElementsAre(saysSo("Client::onChange"), saysSo("Client::follow"), saysSo("Client::request"),
                            saysSo("Registration::whenKnown"), saysSo("kesa::on"), saysSo("kesa::on")));
}

TEST_F(Use, SaysSoWhenTheRuntimeEnds)
{
    connect();
    const Disposable feed = follow();
    runtime.end();
    const std::string ended = "503: the runtime has ended, and with it this client; end the runtime last";
    EXPECT_THAT(takeTold(), ElementsAre("lost", ended, "~"));
    EXPECT_EQ(call(), ended);
    EXPECT_EQ("503: " + client->reason(), ended);
    const Disposable after = follow();
    EXPECT_THAT(takeTold(), ElementsAre(ended, "~"));

    client = use(runtime, "/p");
    const Disposable never = follow();
    runtime.trackings.back()->onError(Response::createErrorResponse(400, "no path"));
    runtime.end();
    EXPECT_EQ(client->reason(), "no path") << "it had ended before";
    const Disposable late = follow();
    request();
    EXPECT_THAT(takeTold(), ElementsAre("400: no path", "~", "400: no path", "~", "400: no path", "~"));
}

TEST_F(Use, AHandlerMayEndIt)
{
    client->onChange([this](bool isConnected) { isConnected ? void() : client.reset(); });
    client->onChange([this](bool) { told.emplace_back("second"); });
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

} // namespace
