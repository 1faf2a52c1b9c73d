// What is held is played by the test.
#include <SimulatedTime.h>
#include <ease/HoldWatch.h>
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

    const ::tracing::TraceCapture traces{"KESA_EASE"};
};

TEST_F(HoldWatch, NamesOnceWhoHoldsALoopAndAgainWhileTheProcessWaitsForItsEnd)
{
    comm::TimeNs since = 0;
    const auto hold = std::make_shared<comm::LoopHold>("executor", [&since] { return comm::now() - since; });
    detail::HoldWatch watch({std::make_shared<comm::LoopHold>("updater", [] { return 0; }), hold});
    EXPECT_TRUE(scheduler.runAll(100)) << "nobody is woken while nothing is called";
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
    }
    {
        const comm::LoopHold::Call another(*hold, describe);
        since = comm::now();
        EXPECT_THAT(told(4 * comm::SECOND), ElementsAre(HasSubstr("the handler of '/a'")));
        watch.expectEnd();
        EXPECT_THAT(told(2 * comm::SECOND),
                    ElementsAre(HasSubstr("[end] this process waits for its executor, which the handler of '/a' has "
                                          "held for 5 s; a second SIGINT or SIGTERM ends it at once, as kill -9 ")));
        EXPECT_THAT(told(12 * comm::SECOND), ElementsAre(HasSubstr("held for 15 s")));
    }
    EXPECT_TRUE(scheduler.runAll(100));
    EXPECT_THAT(traces.take(), IsEmpty());
}

} // namespace
