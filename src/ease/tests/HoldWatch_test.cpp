// What is held is played by the test.
#include "PlayedRuntime.h"

#include <SimulatedTime.h>
#include <ease/HoldWatch.h>
#include <ease/ServedLoops.h>
#include <tracing/CapturingSink.h>

namespace {

using namespace kesa;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class HoldWatch : public test::SimulatedTime, public testing::Test {
protected:
    std::vector<std::string> told(comm::TimeNs after)
    {
        scheduler.runFor(after);
        return traces.take();
    }

    /// Those that `reasons` has been told to be held, each time.
    std::vector<std::string> toReasons() const
    {
        std::vector<std::string> lines;
        for (const auto& loops : std::exchange(reasons->told, {})) {
            std::string line;
            for (const auto& held : loops) {
                line += held.loop + ": " + held.holder;
                line += held.waiting ? ' ' + std::to_string(*held.waiting) : "";
                line += held.services.empty() ? "" : " of " + held.services.front();
            }
            lines.push_back(line);
        }
        return lines;
    }

    const std::shared_ptr<test::PlayedRuntime::Reasons> reasons = std::make_shared<test::PlayedRuntime::Reasons>();
    const ::tracing::TraceCapture traces{"KESA_EASE"};
};

TEST_F(HoldWatch, NamesOnceWhoHoldsALoopAndAgainWhileTheProcessWaitsForItsEnd)
{
    comm::TimeNs since = 0;
    const auto hold = std::make_shared<comm::LoopHold>("executor", [&since] { return comm::now() - since; });
    reasons->held = {std::make_shared<comm::LoopHold>("updater", [] { return 0; }), hold};
    detail::HoldWatch watch(reasons);
    EXPECT_TRUE(scheduler.runAll(100)) << "nobody is woken while nothing is called";
    EXPECT_THAT(toReasons(), ElementsAre(""));
    const auto describe = [] { return std::string("the handler of '/a'"); };
    {
        const comm::LoopHold::Call call(*hold, describe);
        since = comm::now();
        EXPECT_THAT(told(comm::SECOND), IsEmpty());
        EXPECT_THAT(
            told(60 * comm::SECOND),
            ElementsAre(HasSubstr("[loop] the handler of '/a' has held the executor of this process for 2 s and "
                                  "still does, so it hears of ")));
        since += 30 * comm::SECOND; // its thread had no processor
        EXPECT_THAT(told(4 * comm::SECOND), IsEmpty());
        EXPECT_THAT(toReasons(), ElementsAre("executor: the handler of '/a'")) << "once";
    }
    EXPECT_TRUE(scheduler.runAll(100));
    EXPECT_THAT(toReasons(), ElementsAre("")) << "it is over, and no call has come since";
    {
        const comm::LoopHold::Call another(*hold, describe);
        since = comm::now();
        EXPECT_THAT(told(4 * comm::SECOND), ElementsAre(HasSubstr("the handler of '/a'")));
        watch.expectEnd();
        EXPECT_THAT(told(2 * comm::SECOND),
                    ElementsAre(HasSubstr("[end] this process waits for its executor, which the handler of '/a' has "
                                          "held for 6 s; a second SIGINT or SIGTERM ends it at once, as kill -9 ")));
        EXPECT_THAT(told(12 * comm::SECOND), ElementsAre(HasSubstr("held for 16 s")));
    }
    EXPECT_TRUE(scheduler.runAll(100));
    EXPECT_THAT(traces.take(), IsEmpty());
}

TEST_F(HoldWatch, TracesALoopOfTheProgramsOwnOnceRequestsWaitForIt)
{
    auto loop = std::make_shared<comm::ActiveObject>("disk");
    const auto before = detail::OwnLoop::of(loop);
    EXPECT_EQ(before, detail::OwnLoop::of(loop));
    detail::ServedHere served(nullptr, before);
    served.registered({url("ipc://p/served")});
    const detail::HoldWatch watch(reasons);
    EXPECT_TRUE(scheduler.runAll(100));
    toReasons();
    {
        const auto describe = [] { return std::string("the request '/a'"); };
        const detail::OwnLoop::Call call(*before, describe);
        EXPECT_THAT(told(30 * comm::SECOND), IsEmpty()) << "it is there to be held";
        EXPECT_THAT(toReasons(), ElementsAre("disk: the request '/a' 0 of /served"));
        const detail::OwnLoop::Waiting waiting(before);
        EXPECT_THAT(told(60 * comm::SECOND),
                    ElementsAre(HasSubstr("[on] the request '/a' has held the loop 'disk' for 32 s and still does, and "
                                          "1 requests wait for it")))
            << "once";
        EXPECT_THAT(toReasons(), ElementsAre("disk: the request '/a' 1 of /served"));
    }
    EXPECT_TRUE(scheduler.runAll(100));
    EXPECT_EQ(before->waiting(), 0U);
    EXPECT_THAT(toReasons(), ElementsAre(""));
    loop.reset();
    loop = std::make_shared<comm::ActiveObject>("later");
    const auto later = detail::OwnLoop::of(loop);
    const auto describe = [] { return std::string("a handler"); };
    const detail::OwnLoop::Call call(*later, describe);
    told(4 * comm::SECOND);
    EXPECT_THAT(toReasons(), ElementsAre("later: a handler 0")) << "one that came while it watched";
}

} // namespace
