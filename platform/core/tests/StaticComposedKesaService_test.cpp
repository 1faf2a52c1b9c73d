// One service made of several resources, each below a root of its own, and the life of its requests.
#include <NotingHandler.h>
#include <kesa/StaticComposedKesaService.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>

namespace {

using namespace kesa;
using test::Lines;
using testing::ElementsAre;
using Handler = std::unique_ptr<IResponseHandler<Response>>;

/// Keeps what it is asked, and lets the test answer.
class Resource : public IResourceHandler {
public:
    explicit Resource(Lines& log) : m_log(log) {}
    void* actionRequest(const Request& request, Handler&& handler, const std::string& dispatch) override
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
    Handler answers;

private:
    Lines& m_log;
};

Response text(const char* value)
{
    return Response(200, Payload::createFromString(value, "plain/text"));
}

class StaticComposed : public testing::Test {
protected:
    StaticComposed() { make(); }
    void make()
    {
        std::map<std::string, std::unique_ptr<IResourceHandler>> handlers;
        for (const char* root : {"/", "/a", "/a/b"}) {
            auto resource = std::make_unique<Resource>(log);
            resources[root] = resource.get();
            handlers[root] = std::move(resource);
        }
        composed = std::make_unique<StaticComposedKesaService>(std::move(handlers));
    }
    Handler client()
    {
        return std::make_unique<test::NotingHandler<Response>>(log, [this](const Response& response) {
            if (inNext) {
                std::exchange(inNext, nullptr)();
            }
            return std::string(response.getPayload().text());
        });
    }
    void* ask(const std::string& path) { return composed->request(Request("retrieve", path), client()); }
    Lines take() { return std::exchange(log, {}); }

    Lines log; ///< of clients and resources
    std::function<void()> inNext;
    std::map<std::string, Resource*> resources;
    std::unique_ptr<StaticComposedKesaService> composed;
};

const std::string DROPPED = "503: the service dropped the request without an answer";
const std::string ENDED = "503: the service has ended";

TEST_F(StaticComposed, LongestRootBySegmentsServes)
{
    const std::pair<const char*, const char*> roots[] = {
        {"/", "/"}, {"/ab", "/"}, {"/a/", "/a"}, {"/a/bc", "/a"}, {"/a/b/c", "/a/b"}};
    for (const auto& [path, root] : roots) {
        void* const handle = ask(path);
        EXPECT_THAT(take(), ElementsAre(std::string("asked ") + path + " at " + root));
        composed->cancel(handle);
        EXPECT_THAT(take(), ElementsAre("~", "cancelled 77"));
    }
    StaticComposedKesaService empty({});
    Handler handler = client();
    EXPECT_EQ(empty.request(Request("retrieve", "/"), std::move(handler)), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_THAT(log, ElementsAre("404: no resource at '/'"));
    EXPECT_TRUE(handler) << "stays with the caller";
}

TEST_F(StaticComposed, PassesAnswersOnUntilTheEnd)
{
    EXPECT_NE(ask("/x"), ask("/x")) << "the first one is dropped by the resource, which answers it";
    EXPECT_THAT(take(), ElementsAre("asked /x at /", "asked /x at /", DROPPED, "~"));
    EXPECT_FALSE(resources["/"]->answers->onNext(text("1")));
    resources["/"]->answers->onCompleted();
    EXPECT_THAT(take(), ElementsAre("1", "done", "~"));
    EXPECT_TRUE(resources["/"]->answers->onNext(text("2")));
    resources["/"]->answers->onError(text("x"));
    EXPECT_THAT(log, ElementsAre());
}

TEST_F(StaticComposed, AHandlerMayCancelItselfFromInside)
{
    void* const handle = ask("/a");
    // The resource lets go of the very handler it is calling.
    const Handler answers = std::move(resources["/a"]->answers);
    inNext = [&] {
        composed->cancel(handle);
        log.emplace_back("cancel returned");
    };
    EXPECT_FALSE(answers->onNext(text("1")));
    EXPECT_TRUE(answers->onNext(text("2")));
    composed->cancel(handle);
    composed->cancel(IKesaApi::UNDEFINED_REQUEST_HANDLE);
    EXPECT_THAT(log, ElementsAre("asked /a at /a", "cancelled 77", "cancel returned", "1", "~"));
}

TEST_F(StaticComposed, EndingAnswersEverythingOnce)
{
    ask("/a");
    ask("/a/b");
    take();
    composed->endOutstandingRequests();
    EXPECT_THAT(take(), ElementsAre(ENDED, "~", ENDED, "~", "cancelled 77", "cancelled 77"))
        << "a stream is never completed by it";
    EXPECT_EQ(ask("/a"), IKesaApi::UNDEFINED_REQUEST_HANDLE);
    composed.reset();
    EXPECT_THAT(take(), ElementsAre("503: the service takes no more requests", "~"));

    make();
    resources["/a"]->inAction = [&] { composed->endOutstandingRequests(); };
    ask("/a");
    EXPECT_THAT(log, ElementsAre("asked /a at /a", ENDED, "~", "cancelled 77")) << "the cancel after the action";
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
    inNext = [&] {
        inHandler.set_value();
        const std::lock_guard<std::mutex> lock(held);
    };
    {
        const std::lock_guard<std::mutex> lock(held);
        ask("/a");
    }
    answering.join();
    EXPECT_THAT(log, ElementsAre("asked /a at /a", "1", DROPPED, "~"));
}

/// Notices a call that is under way, or comes, after the cancel has returned.
struct Watcher final : IResponseHandler<Response> {
    explicit Watcher(std::atomic<bool>& isCancelled) : cancelled(isCancelled) {}
    bool onNext(const Response&) override
    {
        EXPECT_FALSE(cancelled);
        return false;
    }
    void onError(const Response&) override { ADD_FAILURE(); }
    void onCompleted() override { EXPECT_FALSE(cancelled); }
    std::atomic<bool>& cancelled;
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
