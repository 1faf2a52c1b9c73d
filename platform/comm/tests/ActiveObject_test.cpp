// Active objects on real threads: order, endings and what happens in a forked child. The races run under the thread
// sanitizer as well.
#include "support.h"

#include <comm/AtFork.h>
#include <comm/Scheduler.h>

#include <fcntl.h>
#include <sys/socket.h>
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

TEST(ActiveObject, KeepsTheOrderOfEachProducerAndRunsNothingInline)
{
    constexpr int PRODUCERS = 4;
    constexpr int EVENTS = 2000;
    ActiveObject object("orders.m_loop");
    std::vector<int> last(PRODUCERS, -1);
    int alive = 0; // of the loop only: an event is gone before the next one runs
    bool isInOrder = true;
    std::vector<std::thread> producers;
    for (int producer = 0; producer < PRODUCERS; ++producer) {
        producers.emplace_back([&, producer] {
            for (int i = 0; i < EVENTS; ++i) {
                post(
                    object,
                    [&, producer, i] {
                        auto& expected = last[static_cast<std::size_t>(producer)];
                        isInOrder = isInOrder && object.isCurrentThread() && ++alive == 1 && ++expected == i;
                    },
                    [&alive] { --alive; });
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    object.stop();
    EXPECT_TRUE(isInOrder);
    EXPECT_EQ(last, std::vector<int>(PRODUCERS, EVENTS - 1));
    EXPECT_FALSE(object.isCurrentThread());
}

TEST(ActiveObject, StopRunsWhatCameBeforeAndDropsWhatComesAfter)
{
    ActiveObject object("m_loop");
    std::vector<std::string> log;
    Signal go;
    post(object, [&] {
        go.await();
        post(object, [&] { log.emplace_back("first"); });
    });
    post(object, [&] { log.emplace_back("second"); });
    go.raise();
    object.stop();
    object.stop();
    // The destructor of a dropped event may use the queue: no lock is held.
    post(
        object, [&] { log.emplace_back("never"); },
        [&] {
            log.emplace_back("dropped");
            post(
                object, [] {}, [&] { log.emplace_back("dropped inside"); });
        });
    log.erase(std::remove(log.begin(), log.end(), "first"), log.end()); // came before or after the stop
    EXPECT_THAT(log, ElementsAre("second", "dropped", "dropped inside"));
    EXPECT_FALSE(runAndWait(object, [&] { log.emplace_back("never"); }));
}

TEST(ActiveObject, StopWhileProducersGoOnLosesAndRepeatsNothing)
{
    constexpr int PRODUCERS = 3;
    constexpr int EVENTS = 300;
    for (int round = 0; round < 20; ++round) {
        std::atomic<int> ended{0};
        std::atomic<int> executed{0};
        ActiveObject object("m_loop");
        Signal started;
        std::vector<std::thread> threads;
        for (int producer = 0; producer < PRODUCERS; ++producer) {
            threads.emplace_back([&] {
                for (int i = 0; i < EVENTS; ++i) {
                    post(
                        object, [&executed] { ++executed; }, [&ended] { ++ended; });
                    if (i == round) {
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
        EXPECT_EQ(ended, PRODUCERS * EVENTS);
        EXPECT_EQ(executed, atStop);
    }
}

TEST(ActiveObject, RefusesToStopItself)
{
    AssertionRecorder assertions;
    ActiveObject object("Owner.m_loop");
    EXPECT_TRUE(runAndWait(object, [&object] { object.stop(); }));
    EXPECT_THAT(assertions.take(), ElementsAre(HasSubstr("'Owner.m_loop' cannot be stopped from inside itself")));
    bool hasRun = false;
    EXPECT_TRUE(runAndWait(object, [&] { runAndWait(object, [&hasRun] { hasRun = true; }); }));
    EXPECT_TRUE(hasRun);

    // Destroyed by its own last event, it still runs what is queued.
    auto shared = std::make_shared<ActiveObject>("Owner.m_loop");
    Signal done;
    ActiveObject& alias = *shared;
    Signal go;
    post(alias, [&go, owned = std::move(shared)]() mutable {
        go.await();
        owned = nullptr;
    });
    post(
        alias, [] {}, [&done] { done.raise(); });
    go.raise();
    done.await();
    EXPECT_THAT(assertions.take(), ElementsAre(HasSubstr("cannot be stopped from inside itself")));
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
    EXPECT_TRUE(runAndWait(object, [&told] { EXPECT_THAT(told, IsEmpty()) << "it was told by the lap"; }));
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
    for (const auto& [name, expected] : std::vector<std::pair<std::string, std::string>>{
             {"KesaRuntimeImpl.m_executor", "kesa-executor"},
             {"kesa-io", "kesa-io"},
             {"a.very_long_name_of_a_loop", "kesa-very_long_"},
         }) {
        ActiveObject object(name);
        EXPECT_TRUE(runAndWait(object, [&, expected = expected] {
            char text[32] = {};
            pthread_getname_np(pthread_self(), text, sizeof text);
            EXPECT_EQ(text, expected);
            sigset_t blocked;
            pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
            for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGUSR1, SIGPIPE, SIGALRM, SIGRTMIN}) {
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
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    AtFork::closeInChild(ends[0]);
    AtFork::closeInChild(ends[1]);
    AtFork::forget(ends[1]);
    EXPECT_EQ(
        inChild("", [&] { return (::fcntl(ends[0], F_GETFD) < 0 ? 1 : 0) + (::fcntl(ends[1], F_GETFD) < 0 ? 2 : 0); }),
        1);
    AtFork::forget(ends[0]);
    EXPECT_EQ(inChild("", [&] { return ::fcntl(ends[0], F_GETFD) < 0 ? 1 : 0; }), 0);
    ::close(ends[0]);
    ::close(ends[1]);
}
