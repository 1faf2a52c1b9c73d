// What a thread runs is known under both schedulers, and is forgotten when the work ends.
#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/SimulatedScheduler.h>
#include <comm/onAnyLoop.h>

#include <future>

namespace {

std::string here()
{
    const comm::LoopInfo* const loop = comm::currentLoop();
    return loop == nullptr ? "none" : (loop->isReactor() ? "reactor " : "run loop ") + std::string(loop->name);
}

TEST(OnAnyLoop, KnowsThreads)
{
    EXPECT_FALSE(comm::onAnyLoop());
    comm::ActiveObject active("Test.m_active");
    const auto reactor = comm::Scheduler::current().makeReactor("test-io");
    std::promise<std::string> inReactor;
    reactor->post([&] { inReactor.set_value(here()); });
    std::string inActive;
    EXPECT_TRUE(comm::runAndWait(active, [&] { inActive = here(); }));
    EXPECT_EQ(inActive, "run loop Test.m_active");
    EXPECT_EQ(inReactor.get_future().get(), "reactor test-io");
    EXPECT_EQ(here(), "none");
    reactor->stop();
}

TEST(OnAnyLoop, KnowsSimulatedLoopsThatNest)
{
    comm::SimulatedScheduler scheduler(1);
    comm::Scheduler* const before = comm::Scheduler::install(&scheduler);
    {
        comm::ActiveObject outer("outer");
        comm::ActiveObject inner("inner");
        std::vector<std::string> seen;
        comm::runAndWait(outer, [&] {
            comm::runAndWait(inner, [&] { seen.push_back(here()); });
            seen.push_back(here());
        });
        seen.push_back(here());
        EXPECT_THAT(seen, testing::ElementsAre("run loop inner", "run loop outer", "none"));
    }
    comm::Scheduler::install(before);
}

} // namespace
