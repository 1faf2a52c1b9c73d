#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/Scheduler.h>
#include <json.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/asText.h>
#include <kesa/ease/get.h>
#include <kesa/ease/on.h>
#include <kesa/ease/use.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>

#include <chrono>
#include <cmath>
#include <future>
#include <limits>

namespace {

using namespace kesa;
using namespace std::chrono_literals;
using testing::StartsWith;

template <class Timeout>
concept IsTimeout = requires(IKesaApi& api, Timeout timeout)
{
    kesa::get(api, Request(), timeout);
};
static_assert(IsTimeout<std::chrono::hours> && IsTimeout<std::chrono::microseconds>);
static_assert(!IsTimeout<int> && !IsTimeout<comm::TimeNs> && !IsTimeout<double>, "of what unit?");

/// Drops what it is asked.
struct Asked final : IKesaApi {
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        limit = request.getHeaders()[headers::TIMEOUT];
        handler.reset();
        return this;
    }
    void cancel(void*) override {}
    util::config::Value limit;
};

class Get : public testing::Test {
protected:
    Get()
    {
        service->onRetrieve("/one", [](const Request&, Responder r) { r.answer(asText("1")); })
            .onRetrieve("/stream",
                        [this](const Request&, Responder r) {
                            static_cast<void>(r.next(asText("first")));
                            static_cast<void>(r.next(asText("second")));
                            kept = std::move(r);
                        })
            .onRetrieve("/silent", [this](const Request&, Responder r) { kept = std::move(r); })
            .onRetrieve("/busy",
                        [](const Request&) {
                            Response error(429, test::json(R"({"queued":9})"));
                            error.setHeader("retry-after-ms", 200);
                            throw RequestError(error);
                        })
            .onRetrieve("/empty", [](const Request&, Responder r) { r.complete(); });
    }
    GetResult ask(const std::string& path) { return get(*service, Request("retrieve", path), 50ms); }

    std::optional<Responder> kept;
    std::shared_ptr<ResourceHandler> service = std::make_shared<ResourceHandler>();
};

TEST_F(Get, AnswersOnceOrSaysWhyNot)
{
    EXPECT_EQ(ask("/one").response->getPayload().text(), "1");
    EXPECT_EQ(ask("/stream").response->getPayload().text(), "first");
    EXPECT_TRUE(kept->isCancelled());
    const GetResult empty = ask("/empty");
    EXPECT_TRUE(empty && empty.response->getStatus() == 200 && empty.response->getPayload().isEmpty());
    EXPECT_EQ(empty.error, "");
    const struct {
        const char* path;
        unsigned short status;
        const char* error;
    } failures[] = {
        {"/none", 404, "404: no resource at '/none'; did you mean '/one'?"},
        {"one", 400, "400: 'one' is no path; it begins with '/', has no '//', '.' or '..' and no '/' at its end"},
        {"/busy", 429, R"(429: {"queued":9})"},
        {"/silent", 504, "504: no answer within 50 ms"}};
    for (const auto& [path, status, error] : failures) {
        const GetResult result = ask(path);
        EXPECT_EQ(result.error, error);
        EXPECT_TRUE(!result && result.status == status);
    }
    EXPECT_TRUE(kept->isCancelled() && !ask("/silent").errorResponse);
    const std::optional<Response> busy = ask("/busy").errorResponse;
    EXPECT_EQ(busy->getHeaders()["retry-after-ms"], util::config::Value(200));
    EXPECT_EQ(busy->getPayload().getMimeType(), mimetypes::JSON);
    Asked dropping; // without an answer
    EXPECT_EQ(get(dropping, Request("update", "/x"), 1s).error, "'update /x' was dropped without an answer");
}

TEST_F(Get, TellsTheServiceHowLongItWaits)
{
    constexpr std::int64_t FOR_EVER = INT64_MAX / comm::MILLISECOND + 1;
    using Seconds = std::chrono::duration<double>;
    const struct {
        Duration timeout;
        std::int64_t limit;
    } cases[] = {{2s, 2000},
                 {1500us, 2}, // rounded up: what is not over has a limit left
                 {0s, 0},
                 {std::chrono::hours::min(), 0},
                 {std::chrono::hours::max(), FOR_EVER},
                 {std::chrono::nanoseconds::max(), FOR_EVER},
                 {std::chrono::duration<std::uint8_t>(255), 255'000},
                 {Seconds(1.5), 1500},
                 {Seconds(1e300), FOR_EVER},
                 {Seconds(-std::numeric_limits<double>::infinity()), 0},
                 {Seconds(std::nan("")), 0}};
    for (const auto& [timeout, limit] : cases) {
        Asked asked;
        EXPECT_FALSE(get(asked, Request(), timeout));
        EXPECT_EQ(asked.limit, limit);
    }
}

TEST_F(Get, RefusesWhereItWouldKeepTheAnswerFromComing)
{
    comm::ActiveObject updater("KesaRuntimeImpl.m_updater");
    comm::ActiveObject own("application");
    const auto reactor = comm::Scheduler::current().makeReactor("kesa-io");
    std::vector<std::string> errors;
    comm::runAndWait(updater, [&] {
        errors = {ask("/one").error, get("/p", Request(), 1s).error, connect("/p", 1s).error};
    });
    std::promise<std::string> onReactor;
    reactor->post([&] { onReactor.set_value(ask("/one").error); });
    errors.push_back(onReactor.get_future().get());
    comm::runAndWait(own, [&] { errors.push_back(ask("/one").error); });
    const std::string refused = " can not wait on 'KesaRuntimeImpl.m_updater', which delivers answers; ";
    EXPECT_THAT(errors, testing::ElementsAre(StartsWith("kesa::get" + refused), StartsWith("kesa::get" + refused),
                                             StartsWith("kesa::connect" + refused),
                                             StartsWith("kesa::get can not wait on 'kesa-io'"), ""));
    reactor->stop();
}

TEST_F(Get, WaitsForAnotherThread)
{
    const auto loop = std::make_shared<comm::ActiveObject>("service");
    const auto moved = on(loop, std::shared_ptr<IKesaApi>(service));
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(get(*moved, Request("retrieve", "/one"), 1s).response->getPayload().text(), "1");
    }
}

} // namespace
