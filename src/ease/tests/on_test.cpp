// What is queued on a loop and what has run there is in the test's hand.
#include <NotingHandler.h>
#include <SimulatedTime.h>
#include <comm/ActiveObject.h>
#include <comm/onAnyLoop.h>
#include <kesa/RequestContext.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/on.h>

namespace {

using namespace kesa;
using testing::ElementsAre;

class On : public test::SimulatedTime, public testing::Test {
protected:
    std::unique_ptr<IResponseHandler<int>> moved()
    {
        std::unique_ptr<IResponseHandler<int>> noting =
            std::make_unique<test::NotingHandler<int>>(log, [](const int& value) {
                EXPECT_TRUE(comm::onAnyLoop());
                return std::to_string(value);
            });
        return on(loop, std::move(noting));
    }
    /// What has been noted so far, and then by the loop.
    std::pair<test::Lines, test::Lines> takeBeforeAndAfter()
    {
        test::Lines before = std::exchange(log, {});
        scheduler.runReady();
        return {before, std::exchange(log, {})};
    }

    std::shared_ptr<comm::ActiveObject> loop = std::make_shared<comm::ActiveObject>("own");
    test::Lines log;
};

TEST_F(On, AHandlerHearsItsStreamToTheEndOrTheCancel)
{
    auto stream = moved();
    EXPECT_FALSE(stream->onNext(1));
    EXPECT_FALSE(stream->onNext(2));
    stream->onCompleted();
    stream.reset();
    EXPECT_THAT(takeBeforeAndAfter(), testing::Pair(ElementsAre(), ElementsAre("1", "2", "done", "~")));
    stream = moved();
    stream->onNext(1);
    scheduler.runReady();
    stream->onNext(2);
    stream.reset();
    EXPECT_THAT(takeBeforeAndAfter(), testing::Pair(ElementsAre("1"), ElementsAre("~")))
        << "its end is the loop's, too";
    auto orphan = moved();
    loop.reset();
    EXPECT_TRUE(orphan->onNext(1)) << "without its loop it accepts nothing";
    orphan.reset();
    EXPECT_THAT(log, ElementsAre("~"));
}

TEST_F(On, AServiceIsCalledOnItsLoop)
{
    std::optional<Responder> kept;
    std::function<void()> meanwhile = [] {};
    const auto service = std::make_shared<ResourceHandler>();
    service->onRetrieve("/", [&](const Request&, Responder responder) {
        EXPECT_TRUE(comm::onAnyLoop());
        const RequestContext* const current = RequestContext::current();
        log.push_back(current != nullptr && current->stream == nullptr ? current->process : "nobody");
        EXPECT_EQ(RequestContext::deadline(), 70);
        EXPECT_EQ(detail::OwnLoop::of(loop)->hold().holder(), "the request 'retrieve /'");
        EXPECT_EQ(detail::OwnLoop::of(loop)->waiting(), 0U);
        kept = std::move(responder);
        std::exchange(meanwhile, [] {})();
    });
    auto api = on(loop, std::shared_ptr<IKesaApi>(service));
    struct : IStreamControl {
        void setQueuePolicy(QueuePolicy) override {}
    } control; // lives in the first call only
    RequestContext context;
    context.process = "asker";
    context.stream = &control;
    const auto ask = [&] {
        const RequestContext::Scope scope(&context, 70);
        return api->request(Request("retrieve", "/"), test::noteTexts(log));
    };
    api->cancel(ask());
    EXPECT_THAT(takeBeforeAndAfter(), testing::Pair(ElementsAre("~"), ElementsAre())) << "before it began";

    void* const late = ask();
    EXPECT_EQ(detail::OwnLoop::of(loop)->waiting(), 1U);
    api->cancel(ask());
    EXPECT_EQ(detail::OwnLoop::of(loop)->waiting(), 1U) << "one that was cancelled waits no more";
    EXPECT_THAT(std::exchange(log, {}), ElementsAre("~"));
    scheduler.runReady();
    api->cancel(late);
    EXPECT_TRUE(kept->next(Payload())) << "nothing reaches the client, though the service does not know yet";
    EXPECT_THAT(takeBeforeAndAfter(), testing::Pair(ElementsAre("asker", "~"), ElementsAre()));
    EXPECT_TRUE(kept->isCancelled());

    void* const early = ask();
    meanwhile = [&] { api->cancel(early); };
    scheduler.runReady();
    EXPECT_TRUE(kept->isCancelled()) << "while the service was called";
    EXPECT_THAT(std::exchange(log, {}), ElementsAre("asker", "~"));

    ask();
    scheduler.runReady();
    api.reset();
    EXPECT_THAT(takeBeforeAndAfter(),
                testing::Pair(ElementsAre("asker", testing::StartsWith("503"), "~"), ElementsAre()));
    EXPECT_EQ(service.use_count(), 1);
}

TEST_F(On, WhatThrowsIsNamedBeforeTheProcessEnds)
{
    struct Throwing : IKesaApi {
        void* request(const Request&, std::unique_ptr<IResponseHandler<Response>>&&) override { throw 7; }
        void cancel(void*) override {}
    };
    const auto api = on(loop, std::shared_ptr<IKesaApi>(std::make_shared<Throwing>()));
    const auto ask = [&] {
        api->request(Request("retrieve", "/volume"), test::noteTexts(log));
        scheduler.runReady();
    };
    EXPECT_DEATH(ask(), "the request 'retrieve /volume' of a service given to kesa::on has thrown, which ends this "
                        "process: an exception that is no std::exception");
    const auto throwing = on(loop, handler<int>([](const int&) { throw std::runtime_error("disk full"); }));
    const auto tell = [&] {
        throwing->onNext(1);
        scheduler.runReady();
    };
    EXPECT_DEATH(tell(),
                 "a handler given to kesa::on, on the loop 'own', has thrown, which ends this process: disk full");
}

TEST_F(On, AServiceWithoutItsLoopAnswers503)
{
    const auto api = on(loop, std::shared_ptr<IKesaApi>(std::make_shared<ResourceHandler>()));
    const auto ask = [&] { api->request(Request("retrieve", "/"), test::noteTexts(log)); };
    loop->stop();
    ask();
    loop.reset();
    ask();
    const std::string ended = "503: the loop given to kesa::on has ended";
    EXPECT_THAT(log, ElementsAre(ended, "~", ended, "~"));
}

} // namespace
