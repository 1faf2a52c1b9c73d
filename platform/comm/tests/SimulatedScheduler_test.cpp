// The simulated scheduler: one thread, an order that the seed alone decides, a clock in the test's hand.
#include "support.h"

#include <comm/Scheduler.h>
#include <comm/SimulatedScheduler.h>

#include <optional>
#include <set>

using namespace comm;
using namespace comm::test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class Simulated : public testing::Test {
protected:
    Simulated() { Scheduler::install(&sim); }
    ~Simulated() override { Scheduler::install(nullptr); }

    SimulatedScheduler sim{7};
    std::vector<std::string> log;
};

/// The order in which two loops with queues, turn ends and timers run under a seed.
std::string orderOf(std::uint64_t seed)
{
    SimulatedScheduler sim(seed);
    Scheduler::install(&sim);
    std::string order;
    {
        ActiveObject object("object");
        const auto loop = sim.makeReactor("loop");
        for (int i = 0; i < 10; ++i) {
            post(object, [&, i] {
                order += 'o';
                loop->post([&, i] { loop->startTimer(now() + i * SECOND, [&order] { order += 't'; }); });
            });
            loop->post([&] {
                order += 'l';
                loop->atTurnEnd([&order] { order += 'e'; });
            });
        }
        EXPECT_TRUE(sim.runAll());
    }
    Scheduler::install(nullptr);
    return order;
}

} // namespace

TEST(SimulatedOrder, FollowsTheSeedAndNothingElse)
{
    std::set<std::string> orders;
    for (std::uint64_t seed = 0; seed < 50; ++seed) {
        const std::string order = orderOf(seed);
        EXPECT_EQ(order, orderOf(seed));
        EXPECT_EQ(order.size(), 40U);
        orders.insert(order);
    }
    EXPECT_GT(orders.size(), 45U);
}

TEST_F(Simulated, TheClockJumpsOnlyWhenNothingIsDue)
{
    const auto loop = sim.makeReactor("io");
    const TimeNs start = now();
    runOn(*loop, [&] {
        loop->startTimer(start + 10 * SECOND, [&] { log.emplace_back("ten"); });
        loop->startTimer(start + 2 * SECOND, [&] {
            log.emplace_back("two");
            loop->post([&] { log.emplace_back(now() == start + 2 * SECOND ? "posted at two" : "later"); });
        });
        loop->cancelTimer(loop->startTimer(start + SECOND, [] { FAIL(); }));
    });
    sim.runReady();
    EXPECT_THAT(log, ElementsAre());
    sim.runFor(3 * SECOND);
    EXPECT_EQ(now(), start + 3 * SECOND);
    EXPECT_THAT(log, ElementsAre("two", "posted at two"));

    // A wait takes the clock to the next timer, but not beyond its own deadline.
    std::mutex mutex;
    Condition never;
    std::unique_lock lock(mutex);
    EXPECT_FALSE(waitFor(
        never, lock, [] { return false; }, start + 5 * SECOND));
    EXPECT_EQ(now(), start + 5 * SECOND);
    EXPECT_TRUE(waitFor(never, lock, [&] { return log.size() == 3; }));
    EXPECT_EQ(now(), start + 10 * SECOND);
    EXPECT_TRUE(sim.runAll());
    runOn(*loop, [&] { loop->startTimer(0, [&] { loop->startTimer(0, [] {}); }); });
    EXPECT_FALSE(sim.runAll(1)) << "still busy";
}

TEST_F(Simulated, ADeadlockIsReportedAndTheWaitEnds)
{
    AssertionRecorder assertions;
    ActiveObject waiter("Runtime.m_executor");
    ActiveObject other("Runtime.m_updater");
    std::optional<bool> answer;
    bool hasRunLate = false;
    post(waiter, [&] {
        answer = runAndWait(other, [&] { // which waits for the first in turn
            EXPECT_FALSE(runAndWait(waiter, [&hasRunLate] { hasRunLate = true; }));
        });
    });
    sim.runReady();
    EXPECT_EQ(answer, std::optional<bool>(true));
    EXPECT_FALSE(hasRunLate) << "its variables are gone";
    EXPECT_THAT(assertions.take(), ElementsAre(testing::AllOf(HasSubstr("deadlock"), HasSubstr("'Runtime.m_executor'"),
                                                              HasSubstr("'Runtime.m_updater'"))));
}

TEST_F(Simulated, APausedGroupKeepsItsWorkAndAKilledOneLosesIt)
{
    sim.setGroup(1);
    auto first = std::make_unique<ActiveObject>("first");
    const auto io = sim.makeReactor("first.io");
    sim.setGroup(2);
    ActiveObject second("second");
    runOn(*io, [&] { io->startTimer(now() + SECOND, [&] { log.emplace_back("timer"); }); });
    post(*first, [&] { log.emplace_back("first"); });
    sim.pauseGroup(1);
    sim.runFor(2 * SECOND);
    EXPECT_TRUE(log.empty());
    sim.continueGroup(1);
    sim.runReady();
    EXPECT_THAT(log, testing::UnorderedElementsAre("first", "timer"));

    log.clear();
    const auto drop = [&] {
        log.emplace_back("dropped");
        post(second, [&] { log.emplace_back("told"); }); // destructors of what is dropped may go on with other loops
    };
    post(
        *first, [] { FAIL(); }, drop);
    sim.killGroup(1);
    EXPECT_THAT(log, ElementsAre("dropped"));
    post(
        *first, [] { FAIL(); }, [&] { log.emplace_back("dropped at once"); });
    io->post([] { FAIL(); });
    EXPECT_FALSE(runAndWait(*first, [] { FAIL(); }));
    first.reset();
    sim.runReady();
    EXPECT_THAT(log, ElementsAre("dropped", "dropped at once", "told"));
}
