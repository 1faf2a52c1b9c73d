#include <kesa/StaticComposedKesaService.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

namespace {

using namespace kesa;
using Log = std::vector<std::string>;
using testing::ElementsAre;

class Client : public IResponseHandler<Response> {
public:
    explicit Client(Log& log) : m_log(log) {}
    ~Client() override { m_log.push_back("~"); }
    bool onNext(const Response& response) override
    {
        m_log.emplace_back(response.getPayload().text());
        if (inNext) {
            std::exchange(inNext, nullptr)();
        }
        return false;
    }
    void onError(const Response& error) override { m_log.push_back(std::to_string(error.getStatus())); }
    void onCompleted() override { m_log.push_back("done"); }
    std::function<void()> inNext;

private:
    Log& m_log;
};

/// Keeps what it is asked, and lets the test answer.
class Resource : public IResourceHandler {
public:
    explicit Resource(Log& log) : m_log(log) {}
    void* actionRequest(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler,
                        const std::string& dispatch) override
    {
        m_log.push_back("asked " + request.getPath() + " at " + dispatch);
        answers = std::move(handler);
        if (inAction) {
            inAction();
        }
        return reinterpret_cast<void*>(std::uintptr_t{77});
    }
    void cancelRequest(void* handle) override
    {
        m_log.push_back("cancelled " + std::to_string(reinterpret_cast<std::uintptr_t>(handle)));
        answers.reset();
    }
    std::function<void()> inAction;
    std::unique_ptr<IResponseHandler<Response>> answers;

private:
    Log& m_log;
};

Response text(const char* value)
{
    return Response(200, Payload::createFromString(value, "plain/text"));
}

class StaticComposed : public testing::Test {
protected:
    StaticComposed()
    {
        std::map<std::string, std::unique_ptr<IResourceHandler>> handlers;
        for (const char* root : {"/", "/a", "/a/b"}) {
            auto resource = std::make_unique<Resource>(service);
            resources[root] = resource.get();
            handlers[root] = std::move(resource);
        }
        composed = std::make_unique<StaticComposedKesaService>(std::move(handlers));
    }
    void* ask(const std::string& path)
    {
        return composed->request(Request("retrieve", path), std::make_unique<Client>(client));
    }

    Log client, service;
    std::map<std::string, Resource*> resources;
    std::unique_ptr<StaticComposedKesaService> composed;
};

TEST_F(StaticComposed, LongestRootBySegmentsServes)
{
    for (const char* path : {"/", "/ab", "/a/", "/a/bc", "/a/b/c"}) {
        ask(path);
    }
    EXPECT_THAT(service, ElementsAre("asked / at /", "asked /ab at /", "asked /a/ at /a", "asked /a/bc at /a",
                                     "asked /a/b/c at /a/b"));
    StaticComposedKesaService empty({});
    auto handler = std::unique_ptr<IResponseHandler<Response>>(std::make_unique<Client>(client));
    client.clear();
    EXPECT_EQ(empty.request(Request("retrieve", "/"), std::move(handler)), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_THAT(client, ElementsAre("404"));
    EXPECT_TRUE(handler) << "stays with the caller";
}

TEST_F(StaticComposed, PassesAnswersOnUntilTheEnd)
{
    EXPECT_NE(ask("/x"), ask("/x")) << "the first one is dropped by the resource, which answers it";
    EXPECT_THAT(client, ElementsAre("503", "~"));
    client.clear();
    EXPECT_FALSE(resources["/"]->answers->onNext(text("1")));
    resources["/"]->answers->onCompleted();
    EXPECT_THAT(client, ElementsAre("1", "done", "~"));
    EXPECT_TRUE(resources["/"]->answers->onNext(text("2")));
    resources["/"]->answers->onError(text("x"));
    EXPECT_EQ(client.size(), 3u);
}

TEST_F(StaticComposed, CancelReachesTheResourceAndNothingComesAfter)
{
    void* const handle = ask("/a");
    composed->cancel(handle);
    EXPECT_THAT(service, ElementsAre("asked /a at /a", "cancelled 77"));
    EXPECT_THAT(client, ElementsAre("~"));
    composed->cancel(handle);
    composed->cancel(IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_EQ(service.size(), 2u);
}

TEST_F(StaticComposed, AHandlerMayCancelItselfFromInside)
{
    auto handler = std::make_unique<Client>(client);
    Client* const raw = handler.get();
    void* const handle = composed->request(Request("retrieve", "/a"), std::move(handler));
    raw->inNext = [&] {
        composed->cancel(handle);
        client.push_back("cancel returned");
    };
    // The resource lets go of the very handler it is calling.
    const auto answers = std::move(resources["/a"]->answers);
    EXPECT_FALSE(answers->onNext(text("1")));
    EXPECT_TRUE(answers->onNext(text("2")));
    EXPECT_THAT(client, ElementsAre("1", "cancel returned", "~"));
}

TEST_F(StaticComposed, EndingAnswersEverythingOnce)
{
    ask("/a");
    ask("/a/b");
    composed->endOutstandingRequests();
    EXPECT_THAT(client, ElementsAre("503", "~", "503", "~")) << "a stream is never completed by it";
    EXPECT_EQ(service.size(), 4u);
    client.clear();
    EXPECT_EQ(ask("/a"), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_THAT(client, ElementsAre("503", "~"));
    composed.reset();
    EXPECT_EQ(client.size(), 2u);
}

TEST_F(StaticComposed, EndingDuringTheActionCancelsAfterIt)
{
    resources["/a"]->inAction = [&] { composed->endOutstandingRequests(); };
    ask("/a");
    EXPECT_THAT(client, ElementsAre("503", "~"));
    EXPECT_THAT(service, ElementsAre("asked /a at /a", "cancelled 77"));
}

TEST_F(StaticComposed, AskingDoesNotWaitForAHandlerThatIsToldMeanwhile)
{
    std::promise<void> inHandler;
    std::mutex held; // by who asks, as wide as the call, and wanted by the handler
    std::thread answering;
    resources["/a"]->inAction = [&] {
        answering = std::thread([answers = std::move(resources["/a"]->answers)] { answers->onNext(text("1")); });
        inHandler.get_future().wait();
    };
    auto handler = std::make_unique<Client>(client);
    handler->inNext = [&] {
        inHandler.set_value();
        const std::lock_guard<std::mutex> lock(held);
    };
    {
        const std::lock_guard<std::mutex> lock(held);
        composed->request(Request("retrieve", "/a"), std::move(handler));
    }
    answering.join();
    EXPECT_THAT(client, ElementsAre("1", "503", "~"));
}

/// Notices a call that is under way, or comes, after the cancel has returned.
class Watcher : public IResponseHandler<Response> {
public:
    explicit Watcher(std::atomic<bool>& cancelled) : m_cancelled(cancelled) {}
    bool onNext(const Response&) override
    {
        EXPECT_FALSE(m_cancelled);
        return false;
    }
    void onError(const Response&) override { ADD_FAILURE(); }
    void onCompleted() override { EXPECT_FALSE(m_cancelled); }

private:
    std::atomic<bool>& m_cancelled;
};

TEST_F(StaticComposed, NothingComesAfterACancelThatRacesWithAnswers)
{
    for (int round = 0; round < 200; ++round) {
        std::atomic<bool> cancelled{false};
        void* const handle = composed->request(Request("retrieve", "/a"), std::make_unique<Watcher>(cancelled));
        std::thread answering([answers = std::move(resources["/a"]->answers)] {
            answers->onNext(text("1"));
            answers->onCompleted();
        });
        composed->cancel(handle);
        cancelled = true;
        answering.join();
    }
}

} // namespace
