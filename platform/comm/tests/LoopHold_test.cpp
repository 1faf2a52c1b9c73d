// A loop makes calls while another thread asks for their names, which live no longer than the calls.
#include <comm/ActiveObject.h>
#include <comm/LoopHold.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace {

using comm::LoopHold;

/// Where a filter keeps threads from passing barriers, as in some containers, nobody is named, and every call counts.
class LoopHoldTest : public testing::Test {
protected:
    void SetUp() override
    {
        const LoopHold idle("executor", [] { return 0; });
        if (idle.isCalling({})) {
            EXPECT_EQ(idle.holder(), "a handler");
            GTEST_SKIP() << "the kernel refuses membarrier(2)";
        }
    }
};

TEST_F(LoopHoldTest, NamesTheInnermostCallUnderWay)
{
    LoopHold hold("executor", [] { return 7; });
    EXPECT_EQ(hold.holder(), "a handler");
    {
        const auto outer = [] { return std::string("outer"); };
        const LoopHold::Call call(hold, outer);
        {
            const auto inner = [] { return std::string("inner"); };
            const LoopHold::Call innerCall(hold, inner);
            EXPECT_EQ(hold.holder(), "inner");
        }
        EXPECT_EQ(hold.holder(), "outer");
        EXPECT_EQ(hold.heldFor(), 7);
    }
    EXPECT_EQ(hold.holder(), "a handler");
    EXPECT_EQ(hold.heldFor(), 0) << "it is held by nobody";
}

TEST_F(LoopHoldTest, TellsOfTheNextCallOnce)
{
    LoopHold hold("executor", [] { return 0; });
    int calls = 0;
    const auto wake = [&calls] { ++calls; };
    const auto describe = [] { return std::string(); };
    EXPECT_FALSE(hold.isCalling(wake));
    for (int i = 0; i < 2; ++i) {
        const LoopHold::Call call(hold, describe);
        EXPECT_EQ(calls, 1);
        EXPECT_TRUE(hold.isCalling({}));
    }
}

TEST_F(LoopHoldTest, IsReadWhileCallsBeginAndEnd)
{
    LoopHold hold("executor", [] { return 0; });
    std::atomic<bool> isOver{false};
    int woken = 0; // the loop's own
    std::thread loop([&] {
        while (!isOver) {
            const auto name = std::make_unique<std::string>("a name that lies outside of the frame, and goes");
            const auto describe = [&name] { return *name; };
            const LoopHold::Call call(hold, describe);
        }
    });
    for (int named = 0; named < 500;) {
        const std::string holder = hold.holder();
        ASSERT_TRUE(holder == "a handler" || holder == "a name that lies outside of the frame, and goes") << holder;
        hold.isCalling([&woken] { ++woken; });
        named += holder == "a handler" ? 0 : 1;
    }
    isOver = true;
    loop.join();
    EXPECT_GT(woken, 0);
}

} // namespace
