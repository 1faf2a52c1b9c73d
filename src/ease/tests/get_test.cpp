#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/Scheduler.h>
#include <comm/SimulatedScheduler.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/get.h>
#include <kesa/ease/on.h>

#include <future>

namespace {

using namespace kesa;

Payload text(std::string_view value)
{
    return Payload::createFromString(std::string(value), "plain/text");
}

/// Counts what is still open.
class Counting : public IKesaApi {
public:
    explicit Counting(IKesaApi& api) : m_api(api) {}
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        return m_api.request(request, std::move(handler));
    }
    void cancel(void* handle) override
    {
        ++cancels;
        m_api.cancel(handle);
    }
    int cancels = 0;

private:
    IKesaApi& m_api;
};

class Get : public testing::Test {
protected:
    Get()
    {
        service->onRetrieve("/one", [](const Request&, Responder r) { r.answer(text("1")); })
            .onRetrieve("/stream",
                        [this](const Request&, Responder r) {
                            static_cast<void>(r.next(text("first")));
                            static_cast<void>(r.next(text("second")));
                            kept = std::move(r);
                        })
            .onRetrieve("/silent", [this](const Request&, Responder r) { kept = std::move(r); })
            .onRetrieve("/empty", [](const Request&, Responder r) { r.complete(); });
    }
    GetResult ask(const std::string& path) { return get(api, Request("retrieve", path), 50 * comm::MILLISECOND); }

    std::optional<Responder> kept;
    std::shared_ptr<ResourceHandler> service = std::make_shared<ResourceHandler>();
    Counting api{*service};
};

TEST_F(Get, AnswersOnceAndCancelsTheRest)
{
    EXPECT_EQ(ask("/one").response->getPayload().text(), "1");
    EXPECT_EQ(api.cancels, 0) << "what has ended needs no cancel";
    EXPECT_EQ(ask("/stream").response->getPayload().text(), "first");
    EXPECT_EQ(api.cancels, 1);
    EXPECT_TRUE(kept->isCancelled());
}

TEST_F(Get, SaysWhyThereIsNoAnswer)
{
    const GetResult missing = ask("/none");
    EXPECT_FALSE(missing);
    EXPECT_EQ(missing.status, 404);
    EXPECT_EQ(missing.error, "404: no resource at '/none'");
    EXPECT_EQ(ask("/empty").error, "'retrieve /empty' ended without an answer");
    EXPECT_EQ(api.cancels, 0);
    EXPECT_EQ(ask("/silent").error, "no answer to 'retrieve /silent' within 50 ms");
    EXPECT_EQ(ask("/silent").status, 0);
    EXPECT_EQ(api.cancels, 2);
}

TEST_F(Get, RefusesWhereItWouldKeepTheAnswerFromComing)
{
    comm::ActiveObject updater("KesaRuntimeImpl.m_updater");
    comm::ActiveObject own("application");
    const auto reactor = comm::Scheduler::current().makeReactor("kesa-io");
    std::string onUpdater, onReactor, onOwn;
    comm::runAndWait(updater, [&] { onUpdater = ask("/one").error; });
    comm::runAndWait(own, [&] { onOwn = ask("/one").error; });
    std::promise<void> done;
    reactor->post([&] {
        onReactor = ask("/one").error;
        done.set_value();
    });
    done.get_future().wait();
    EXPECT_THAT(onUpdater, testing::HasSubstr("'KesaRuntimeImpl.m_updater'"));
    EXPECT_THAT(onReactor, testing::HasSubstr("'kesa-io'"));
    EXPECT_EQ(onOwn, "");
    reactor->stop();
}

TEST_F(Get, WaitsForAnotherThread)
{
    const auto loop = std::make_shared<comm::ActiveObject>("service");
    const auto moved = on(loop, std::shared_ptr<IKesaApi>(service));
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(get(*moved, Request("retrieve", "/one"), comm::SECOND).response->getPayload().text(), "1");
    }
    EXPECT_EQ(get(*moved, Request("retrieve", "/stream"), comm::SECOND).response->getPayload().text(), "first");
}

TEST(GetSimulated, TimePassesOnTheSchedulersClock)
{
    comm::SimulatedScheduler scheduler(1);
    comm::Scheduler* const before = comm::Scheduler::install(&scheduler);
    {
        std::optional<Responder> kept;
        const auto service = std::make_shared<ResourceHandler>();
        service->onRetrieve("/", [&kept](const Request&, Responder r) { kept = std::move(r); });
        const auto loop = std::make_shared<comm::ActiveObject>("service");
        const auto moved = on(loop, std::shared_ptr<IKesaApi>(service));
        const comm::TimeNs start = comm::now();
        EXPECT_FALSE(get(*moved, Request("retrieve", "/"), 3600 * comm::SECOND));
        EXPECT_EQ(comm::now(), start + 3600 * comm::SECOND);
        scheduler.runReady();
        EXPECT_TRUE(kept->isCancelled());
    }
    comm::Scheduler::install(before);
}

} // namespace
