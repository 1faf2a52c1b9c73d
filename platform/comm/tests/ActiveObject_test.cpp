// Active objects on real threads: order, endings and what happens in a forked child. The races run under the thread
// sanitizer as well.
#include "support.h"

#include <comm/OwnDescriptors.h>
#include <comm/Scheduler.h>
#include <tracing/CapturingSink.h>

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

using namespace comm;
using namespace comm::test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(ActiveObject, KeepsTheOrderOfEachProducerAndLosesNothingWhenItStops)
{
    constexpr int PRODUCERS = 3;
    constexpr int EVENTS = 1000;
    for (int round = 0; round < 20; ++round) {
        ActiveObject object("orders.m_loop");
        int last[PRODUCERS] = {};
        int alive = 0; // of the loop only: an event is gone before the next one runs
        bool isInOrder = true;
        std::atomic<int> executed{0};
        std::atomic<int> dropped{0};
        Signal started;
        std::vector<std::thread> threads;
        for (int& mine : last) {
            threads.emplace_back([&] {
                for (int i = 1; i <= EVENTS; ++i) {
                    const auto isRun = std::make_shared<bool>(false);
                    post(
                        object,
                        [&, isRun, i] {
                            isInOrder = isInOrder && object.isCurrentThread() && ++alive == 1 && ++mine == i;
                            *isRun = true;
                            ++executed;
                        },
                        [&, isRun] { *isRun ? --alive : ++dropped; });
                    if (i == 40 * round + 1) {
                        started.raise();
                    }
                }
            });
        }
        started.await();
        threads.emplace_back([&object] { object.stop(); });
        object.stop();
        const int atStop = executed;
        for (auto& thread : threads) {
            thread.join();
        }
        EXPECT_TRUE(isInOrder);
        EXPECT_EQ(executed, atStop);
        EXPECT_EQ(executed + dropped, PRODUCERS * EVENTS);
    }
}

TEST(ActiveObject, StopRunsWhatCameBeforeSayingWhenThatTakesLongAndDropsWhatComesAfter)
{
    const tracing::TraceCapture traces("KESA_COMM");
    ActiveObject object("my.worker");
    std::vector<std::string> log;
    std::vector<std::string> told;
    post(object, [&] {
        while ((told = traces.take()).empty()) {
            std::this_thread::yield();
        }
    });
    post(object, [&log] { log.emplace_back("queued"); });
    object.stop();
    EXPECT_THAT(told, ElementsAre(HasSubstr("3 [stop] who stops or destroys the loop 'my.worker' has waited for 1 s")));
    // The destructor of a dropped event may use the queue: no lock is held.
    post(
        object, [] { FAIL(); },
        [&] {
            log.emplace_back("dropped");
            post(
                object, [] { FAIL(); }, [&log] { log.emplace_back("dropped inside"); });
        });
    EXPECT_THAT(log, ElementsAre("queued", "dropped", "dropped inside"));
    EXPECT_FALSE(runAndWait(object, [] { FAIL(); }));
}

TEST(ActiveObject, RefusesToStopItself)
{
    AssertionRecorder assertions;
    auto object = std::make_unique<ActiveObject>("Owner.m_loop");
    ActiveObject& loop = *object;
    EXPECT_TRUE(runAndWait(loop, [&loop] { loop.stop(); }));
    bool hasRun = false;
    EXPECT_TRUE(runAndWait(loop, [&] { runAndWait(loop, [&hasRun] { hasRun = true; }); }));
    EXPECT_TRUE(hasRun) << "it does not wait for itself";
    // Destroyed by its own last event, it still runs what is queued.
    Signal go;
    Signal done;
    post(loop, [&] {
        go.await();
        object.reset();
    });
    post(loop, [&done] { done.raise(); });
    go.raise();
    done.await();
    const auto refused = HasSubstr("'Owner.m_loop' cannot be stopped from inside itself");
    EXPECT_THAT(assertions.take(), ElementsAre(refused, refused));
}

// What the thread has waited for a processor between events is not known exactly.
TEST(ActiveObject, ThatIsWatchedTellsWhatHoldsItWhileItDoesAndAfterwards)
{
    ActiveObject object("m_loop");
    std::vector<TimeNs> told;
    object.watch([&told](TimeNs held) { told.push_back(held); });
    EXPECT_EQ(object.heldFor(), 0);
    Signal isHeld;
    Signal go;
    post(object, [&] {
        workLong();
        isHeld.raise();
        go.await();
        EXPECT_GT(object.lap(), Reactor::LONG_CALLBACK);
        EXPECT_EQ(object.lap(), 0);
    });
    isHeld.await();
    EXPECT_GT(object.heldFor(), Reactor::LONG_CALLBACK) << "as another thread sees it";
    go.raise();
    Signal otherLoop;
    post(object, [&] {
        isHeld.raise();
        otherLoop.await();
    });
    isHeld.await(2);
    while (object.heldFor() <= 2 * Reactor::LONG_CALLBACK) {
    }
    otherLoop.raise();
    EXPECT_TRUE(
        runAndWait(object, [&told] { EXPECT_THAT(told, IsEmpty()) << "a lap told it; a wait is not its own"; }));
    while (told.empty()) {
        EXPECT_TRUE(runAndWait(object, workLong));
        EXPECT_TRUE(runAndWait(object, [] {}));
    }
    EXPECT_GT(told.front(), Reactor::LONG_CALLBACK);
    object.stop();
    EXPECT_EQ(object.heldFor(), 0);
}

TEST(ActiveObject, ItsThreadHasAShortNameAndTakesNoSignals)
{
    const std::pair<const char*, const char*> names[] = {{"KesaRuntimeImpl.m_executor", "kesa-executor"},
                                                         {"kesa-io", "kesa-io"},
                                                         {"a.very_long_name_of_a_loop", "kesa-very_long_"}};
    for (const auto& [name, expected] : names) {
        ActiveObject object(name);
        EXPECT_TRUE(runAndWait(object, [expected = expected] {
            char text[32] = {};
            pthread_getname_np(pthread_self(), text, sizeof text);
            EXPECT_STREQ(text, expected);
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            for (const int signal : {SIGTERM, SIGINT, SIGCHLD, SIGPIPE, SIGALRM, SIGRTMIN}) {
                EXPECT_TRUE(sigismember(&blocked, signal));
            }
        }));
    }
}

namespace {

/// What `work` returns in a forked child; 100 when an assertion with `text` failed there.
int inChild(const char* text, const std::function<int()>& work)
{
    const pid_t child = ::fork();
    if (child == 0) {
        obr::GlobalErrorHandler::setHandler([text](const obr::GlobalErrorHandler::Report& report) {
            ::_exit(std::string_view(report.message).find(text) != std::string_view::npos ? 100 : 101);
        });
        ::_exit(work());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

TEST(Fork, AChildMayNotUseTheLoopsOfItsParent)
{
    const char* const text = "belongs to the parent process";
    auto object = std::make_unique<ActiveObject>("m_loop");
    auto reactor = Scheduler::current().makeReactor("kesa-io");
    const std::function<void()> uses[] = {[&] { post(*object, [] {}); }, [&] { object->stop(); },
                                          [&] { reactor->post([] {}); }};
    for (const auto& use : uses) {
        EXPECT_EQ(inChild(text, [&use] { return use(), 0; }), 100);
    }
    EXPECT_EQ(inChild(text,
                      [&] {
                          EXPECT_FALSE(object->isCurrentThread());
                          object.reset(); // must not wait for a thread that is not there
                          reactor.reset();
                          return 7;
                      }),
              7);
    EXPECT_TRUE(runAndWait(*object, [] {}));
}

TEST(Fork, AChildHasNoCopyOfRegisteredDescriptors)
{
    const auto open = [] { return ::eventfd(0, 0); };
    const int own = OwnDescriptors::open(open);
    const int other = open();
    EXPECT_EQ(inChild("", [&] { return (::fcntl(own, F_GETFD) < 0 ? 1 : 0) + (::fcntl(other, F_GETFD) < 0 ? 2 : 0); }),
              1);
    OwnDescriptors::close(own);
    ASSERT_EQ(::dup2(other, own), own);
    EXPECT_EQ(inChild("", [&] { return ::fcntl(own, F_GETFD) < 0 ? 1 : 0; }), 0) << "the number is another one's";
    ::close(own);
    ::close(other);

    // Whatever another thread opens and closes meanwhile.
    const int next = open(); // what comes behind it is the opener's
    std::atomic<bool> isEnd{false};
    std::thread opener([&] {
        while (!isEnd) {
            OwnDescriptors::close(OwnDescriptors::open(open));
        }
    });
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(inChild("", [&] { return ::fcntl(next + 1, F_GETFD) < 0 ? 0 : 1; }), 0);
    }
    isEnd = true;
    opener.join();
    ::close(next);
}
