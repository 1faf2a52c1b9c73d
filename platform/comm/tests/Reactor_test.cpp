// The real I/O loop, over socket pairs.
#include "support.h"

#include <comm/Scheduler.h>
#include <tracing/CapturingSink.h>

#include <sys/socket.h>
#include <unistd.h>

#include <ctime>

using namespace comm;
using namespace comm::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct Pair {
    Pair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0); }
    ~Pair()
    {
        ::close(ends[0]);
        closeOther();
    }
    void send() const { EXPECT_EQ(::write(ends[1], "x", 1), 1); }
    void receive() const
    {
        char byte = 0;
        EXPECT_EQ(::read(ends[0], &byte, 1), 1);
    }
    void closeOther() { ::close(std::exchange(ends[1], -1)); }
    int ends[2];
};

class ReactorTest : public testing::Test {
protected:
    std::shared_ptr<Reactor> loop = Scheduler::current().makeReactor("test.m_io");
    std::vector<std::string> log; // the loop's own, until it stops
};

} // namespace

TEST_F(ReactorTest, RunsPostedWorkInOrderThenTheEndOfTheTurn)
{
    runOn(*loop, [this] {
        loop->post([this] { log.emplace_back("next turn"); });
        loop->atTurnEnd([this] {
            log.emplace_back("end");
            loop->atTurnEnd([this] { log.emplace_back("end of the next"); });
        });
        log.emplace_back("task");
    });
    loop->stop();
    EXPECT_THAT(log, ElementsAre("task", "end", "next turn", "end of the next"));
    bool isDropped = false;
    loop->post([guard = std::shared_ptr<void>(nullptr, [&](void*) { isDropped = true; })] { FAIL(); });
    EXPECT_TRUE(isDropped);
    loop->cancelTimer(1);
    loop->unwatch(1);
    loop->stop();
}

TEST_F(ReactorTest, TimersRunInTheOrderOfTheirTimesUnlessCancelled)
{
    Signal done;
    TimeNs ranAt = 0;
    const TimeNs start = now();
    runOn(*loop, [&] {
        loop->startTimer(start + 4 * MILLISECOND, [&] {
            ranAt = now();
            log.emplace_back("late");
            done.raise();
        });
        const auto never = loop->startTimer(start + 2 * MILLISECOND, [] { FAIL(); });
        loop->startTimer(start + MILLISECOND, [this, never] {
            log.emplace_back("early");
            loop->cancelTimer(never);
        });
        loop->startTimer(NEVER, [] { FAIL(); });
        loop->startTimer(0, [this] { log.emplace_back("past"); });
    });
    done.await();
    EXPECT_GE(ranAt, start + 4 * MILLISECOND);
    EXPECT_THAT(log, ElementsAre("past", "early", "late"));
    // What a timer starts waits for the next turn.
    runOn(*loop, [&] {
        log.clear();
        loop->startTimer(0, [&] {
            loop->startTimer(0, [&] {
                log.emplace_back("again");
                done.raise();
            });
            loop->atTurnEnd([this] { log.emplace_back("end"); });
        });
    });
    done.await(2);
    loop->stop();
    EXPECT_THAT(log, ElementsAre("end", "again"));
}

TEST_F(ReactorTest, ReportsADescriptorAsLongAsItIsReady)
{
    Pair pair;
    Signal calls;
    Reactor::Id id = 0;
    std::vector<unsigned> seen;
    pair.send();
    runOn(*loop, [&] {
        id = loop->watch(pair.ends[0], Reactor::eREADABLE, [&](unsigned readiness) {
            seen.push_back(readiness);
            if (seen.size() == 2) { // at the first call nothing is read, so this one is about the same byte
                pair.receive();
            } else if (seen.size() > 2) {
                loop->changeInterest(id, Reactor::eNONE);
            }
            calls.raise();
        });
    });
    calls.await(2);
    runOn(*loop, [&] {
        EXPECT_EQ(seen.size(), 2U);
        loop->changeInterest(id, Reactor::eREADABLE | Reactor::eWRITABLE);
    });
    calls.await(3);
    runOn(*loop, [&] { EXPECT_EQ(seen.size(), 3U); });
    pair.closeOther();
    calls.await(4);
    runOn(*loop, [&] { loop->unwatch(id); });
    loop->stop();
    EXPECT_EQ(seen[0], Reactor::eREADABLE);
    EXPECT_EQ(seen[2], Reactor::eWRITABLE);
    EXPECT_TRUE((seen[3] & Reactor::eHANGUP) != 0U) << "reported although nothing was asked for";
}

TEST_F(ReactorTest, UnwatchHoldsForWhatTheTurnHasSeenAlready)
{
    Pair first;
    Pair second;
    Reactor::Id ids[2] = {0, 0};
    std::weak_ptr<int> captured;
    Signal called;
    runOn(*loop, [&] {
        first.send(); // both are ready before the loop looks
        second.send();
        const auto value = std::make_shared<int>(1);
        captured = value;
        const auto ready = [&, value](unsigned) {
            log.emplace_back("ready");
            loop->unwatch(ids[0]);
            loop->unwatch(ids[1]);
            EXPECT_EQ(*value, 1) << "the function outlives its own unwatching";
            called.raise();
        };
        ids[0] = loop->watch(first.ends[0], Reactor::eREADABLE, ready);
        ids[1] = loop->watch(second.ends[0], Reactor::eREADABLE, ready);
    });
    called.await();
    runOn(*loop, [&] { EXPECT_TRUE(captured.expired()); });
    loop->stop();
    EXPECT_THAT(log, ElementsAre("ready"));
}

TEST_F(ReactorTest, MisuseIsAFailedAssertion)
{
    AssertionRecorder assertions;
    runOn(*loop, [&] {
        loop->stop();
        EXPECT_EQ(loop->watch(-1, Reactor::eREADABLE, [](unsigned) {}), 0U);
    });
    loop->atTurnEnd([] {});
    EXPECT_THAT(assertions.take(),
                ElementsAre(HasSubstr("cannot be stopped from inside"), HasSubstr("cannot watch descriptor -1"),
                            HasSubstr("called outside of the loop 'test.m_io'")));
}

// What the thread has waited for a processor before the first lap is not known exactly.
TEST_F(ReactorTest, NamesTheLapAndTheCallbackThatTookLong)
{
    const tracing::TraceCapture traces("KESA_COMM");
    const auto workUntilLate = [](Reactor& late) {
        EXPECT_EQ(late.lap(), 0);
        TimeNs held = 0;
        while (held == 0) {
            workLong();
            held = late.lap();
        }
        EXPECT_GT(held, 50 * MILLISECOND);
        EXPECT_EQ(late.lap(), 0);
    };
    runOn(*loop, [&] { workUntilLate(*loop); });
    runOn(*loop, [] {});
    EXPECT_THAT(traces.take(), IsEmpty()) << "it was told by the lap";
    const Pair pair;
    const auto watching = Scheduler::current().makeReactor("test.m_watching");
    runOn(*watching, [&] { watching->watch(pair.ends[0], Reactor::eREADABLE, [](unsigned) {}); });
    for (Reactor* const late : {loop.get(), watching.get()}) {
        runOn(*late, [&] {
            workUntilLate(*late);
            workLong();
            EXPECT_GT(late->heldFor(), 50 * MILLISECOND);
        });
        runOn(*late, [] {});
    }
    watching->stop();
    EXPECT_THAT(traces.take(),
                ElementsAre(AllOf(HasSubstr("a callback held the loop 'test.m_io' for"),
                                  HasSubstr(" ms, in which nothing else ran on it")),
                            AllOf(HasSubstr("'test.m_watching'"), HasSubstr("nothing was sent or received"))));
}
