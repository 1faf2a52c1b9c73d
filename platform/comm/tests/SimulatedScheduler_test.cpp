// The simulated scheduler: one thread, an order that the seed alone decides, a clock in the test's hand.
#include "support.h"

#include <SimulatedTime.h>
#include <comm/Scheduler.h>

#include <optional>
#include <set>

using namespace comm;
using namespace comm::test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class Simulated : public kesa::test::SimulatedTime, public testing::Test {
protected:
    SimulatedScheduler& sim = scheduler;
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
                loop->cancelTimer(loop->startTimer(now(), [&order] { order += 'x'; }));
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
