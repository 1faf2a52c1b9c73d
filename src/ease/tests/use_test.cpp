// The runtime is played by the test: it tells what a registry and the connections would, in the orders they may have.
#include "PlayedRuntime.h"

#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/get.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/use.h>
#include <kesa/headers.h>
#include <kesa/responsesemantics.h>

namespace {

using namespace kesa;
using namespace std::chrono_literals;
using namespace kesa::test;
using testing::ElementsAre;
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
    EXPECT_EQ(client->reason(), "nobody is known to provide '/p'");
    EXPECT_EQ(call(), "503: nobody is known to provide '/p'");
    runtime.added("ipc://p/p");
    EXPECT_EQ(client->reason(), "'/p' is registered at ipc://p/p and not connected");
    EXPECT_FALSE(client->isConnected());
    runtime.connected(service);
    EXPECT_TRUE(client->isConnected());
    EXPECT_EQ(client->reason(), "");
    client->whenConnected([this] { told.push_back("at once"); });
    EXPECT_THAT(runtime.take(), ElementsAre("resolve ipc://p/p"));
    EXPECT_THAT(takeTold(), ElementsAre("connected", "at once"));
    EXPECT_EQ(call(), "504: no answer within 0 ms");
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
    EXPECT_EQ(client->reason(), "the connection to '/p' is lost");
    runtime.connected(service);
    runtime.lost();
    EXPECT_THAT(takeTold(), ElementsAre("lost", "connected", "lost"));
    runtime.removed();
    EXPECT_THAT(runtime.take(), ElementsAre("release ipc://p/p"));
    EXPECT_EQ(client->reason(), "nobody is known to provide '/p'");
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
    runtime.resolving->onError(Response::createErrorResponse(404));
    EXPECT_THAT(client->reason(), testing::StartsWith("'/p' cannot be reached: 404"));
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
    service->value("3");
    service->end(503); // while connected, as "too slow"
    EXPECT_EQ(service->requests.size(), 3U);
    service->end(503); // it was the loss
    EXPECT_EQ(service->requests.size(), 3U);
    EXPECT_THAT(takeTold(), ElementsAre("1", "lost", "connected", "2", "3"));
    runtime.lost();
    runtime.connected(service);
    following.dispose();
    EXPECT_EQ(service->handlers.back(), nullptr);
    runtime.lost();
    runtime.connected(service);
    EXPECT_EQ(service->requests.size(), 4U);

    const Disposable none = client->follow(Request("retrieve", "/none"), listener());
    told.clear();
    service->end(404);
    runtime.lost();
    runtime.connected(service);
    EXPECT_THAT(takeTold(), ElementsAre("404", "lost", "connected"));
    EXPECT_EQ(service->requests.size(), 5U);
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
    client->onChange([this](bool) { told.push_back("late"); });
    const Disposable late = client->follow(Request("retrieve", "/feed"), listener());
    client->end();
    EXPECT_THAT(runtime.take(), IsEmpty());
    EXPECT_EQ(call(), "503: the client has ended");
    EXPECT_THAT(takeTold(), IsEmpty());
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
}

TEST_F(Use, ConnectWaitsOrSaysWhyNot)
{
    EXPECT_EQ(kesa::connect(runtime, "/p", 0s).error, "not connected within 0 ms: nobody is known to provide '/p'");
    EXPECT_EQ(runtime.take().back(), "untrack") << "nothing is left";
    const GetResult nobody = kesa::get(runtime, "/p", Request("retrieve", "/"), 0s);
    EXPECT_EQ(nobody.error, "not connected within 0 ms: nobody is known to provide '/p'");
    EXPECT_EQ(nobody.status, 504);
    EXPECT_EQ(runtime.take().back(), "untrack");

    comm::ActiveObject loop("application");
    ConnectResult result;
    comm::ActiveObject updater("KesaRuntimeImpl.m_updater");
    comm::runAndWait(updater, [&] { result = kesa::connect(runtime, "/p", 1s); });
    EXPECT_THAT(result.error, testing::StartsWith("kesa::connect can not wait on 'KesaRuntimeImpl.m_updater'"));
    EXPECT_THAT(runtime.take(), IsEmpty());
}

} // namespace
