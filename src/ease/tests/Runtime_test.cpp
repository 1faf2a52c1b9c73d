// The real runtime of this process, in a run directory of the test's own and without a registry.
#include <AssertionRecorder.h>
#include <TemporaryFolder.h>
#include <Variable.h>
#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/OwnDescriptors.h>
#include <comm/Scheduler.h>
#include <kesa/ease/ResourceHandler.h>
#include <kesa/ease/Runtime.h>
#include <kesa/ease/announceCrashes.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/provide.h>
#include <kesa/ease/use.h>
#include <tracing/CapturingSink.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace kesa;
using namespace std::chrono_literals;
using runtime::v02::KesaRuntime;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* ALONE = R"({"use_registry": false})";

class RuntimeTest : public testing::Test {
protected:
    RuntimeTest()
    {
        std::signal(SIGINT, SIG_DFL); // a script may have started this
    }

    static bool isBlocked(int signal)
    {
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        return sigismember(&blocked, signal) == 1;
    }

    const test::TemporaryFolder directory;
    const test::Variable runDirectory{"KESA_RUN_DIR", directory.path()};
    const test::Variable configuration{"KESA_CONFIG_DIR", "/nonexistent"};
};

/// The real one, which keeps what reactors were made.
class NotingScheduler final : public comm::Scheduler {
public:
    NotingScheduler() { install(this); }
    ~NotingScheduler() override { install(nullptr); }
    NotingScheduler(const NotingScheduler&) = delete;
    NotingScheduler& operator=(const NotingScheduler&) = delete;
    std::unique_ptr<comm::IRunLoop> makeRunLoop(const std::string& name) override { return m_real.makeRunLoop(name); }
    std::shared_ptr<comm::Reactor> makeReactor(const std::string& name) override
    {
        reactors.push_back(name);
        return m_real.makeReactor(name);
    }
    std::unique_ptr<comm::IConditionImpl> makeCondition() override { return m_real.makeCondition(); }
    comm::TimeNs now() const noexcept override { return m_real.now(); }
    std::vector<std::string> reactors;

private:
    Scheduler& m_real = current();
};

TEST_F(RuntimeTest, RunsUntilASignalThatMayComeEarly)
{
    {
        const NotingScheduler scheduler;
        Runtime runtime("greeter", ALONE);
        ASSERT_TRUE(runtime) << runtime.error();
        EXPECT_EQ(runtime->getConfigAccessor().getOwnProcessName(), "greeter");
        EXPECT_THAT(scheduler.reactors, testing::Contains("kesa-watch")) << "which names who holds a loop";
        EXPECT_TRUE(isBlocked(SIGINT) && isBlocked(SIGTERM) && !isBlocked(SIGPIPE));
        ::kill(::getpid(), SIGTERM);
        EXPECT_EQ(runtime.runUntilSignal(), SIGTERM);
        EXPECT_EQ(runtime.runUntilSignal(1h, [] { FAIL() << "it was told already"; }), SIGTERM);
        ::kill(::getpid(), SIGTERM); // as timeout(1) does; let through it would end the test
        EXPECT_TRUE(KesaRuntime::isRunning());
    }
    EXPECT_FALSE(KesaRuntime::isRunning() || isBlocked(SIGINT) || isBlocked(SIGTERM));
}

TEST_F(RuntimeTest, ASignalEndsWhatWaitsUntilItIsTold)
{
    Runtime runtime("visitor");
    std::promise<void> isAsked;
    ResourceHandler silent;
    std::vector<Responder> kept;
    silent.onRetrieve("/", [&](const Request&, const Responder& responder) {
        kept.push_back(responder);
        isAsked.set_value();
    });
    std::string underWay;
    std::thread waiting([&] { underWay = get(silent, Request("retrieve", "/"), 1h).error; });
    isAsked.get_future().wait();
    while (use("/x")->reason().find("no process listens") == std::string::npos) { // it may not have looked yet
        std::this_thread::yield();
    }
    ::kill(::getpid(), SIGINT);
    const std::string why =
        ": nobody is known to provide '/x': the registry at ipc://kesa-registryd/registry is not "
        "connected: no process listens as \"kesa-registryd\" in \"" +
        directory.path() +
        "\", which is empty or was emptied (run directory by $KESA_RUN_DIR); kesactl doctor says more";
    const ConnectResult connecting = connect("/x", 1h);
    EXPECT_EQ(connecting.error, "interrupted by SIGINT" + why);
    EXPECT_EQ(connecting.status, 0);
    waiting.join();
    EXPECT_EQ(underWay, "interrupted by SIGINT");
    EXPECT_TRUE(kept.front().isCancelled());
    EXPECT_EQ(get(silent, Request("retrieve", "/"), 1h).error, underWay);
    EXPECT_EQ(kept.size(), 1U) << "not sent";
    EXPECT_EQ(runtime.runUntilSignal(), SIGINT);
    EXPECT_EQ(connect("/x", 0s).error, "504: not connected within 0 ms" + why);
}

TEST_F(RuntimeTest, ASecondSignalEndsTheProcess)
{
    const auto ignore = [] {
        Runtime runtime("greeter", ALONE);
        ::kill(::getpid(), SIGINT);
        runtime.runUntilSignal();
        while (true) { // hangs
            ::kill(::getpid(), SIGINT);
            std::this_thread::yield();
        }
    };
    EXPECT_EXIT(ignore(), testing::KilledBySignal(SIGINT), "");
}

TEST_F(RuntimeTest, LeavesSignalsToAProgramThatHasThemItselfOrIgnoresThem)
{
    std::signal(SIGINT, SIG_IGN);
    {
        const ::tracing::TraceCapture traces{"KESA_EASE"};
        Runtime runtime("greeter", ALONE);
        ::raise(SIGINT); // to this thread
        std::vector<std::string> told;
        EXPECT_EQ(runtime.runUntilSignal(1ms,
                                         [&] {
                                             told = traces.take();
                                             ::kill(::getpid(), told.empty() ? SIGINT : SIGTERM);
                                         }),
                  SIGTERM);
        EXPECT_THAT(told, testing::ElementsAre(HasSubstr("SIGINT has come and is ignored")));
    }
    std::signal(SIGINT, SIG_DFL);
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGINT);
    pthread_sigmask(SIG_BLOCK, &own, nullptr);
    {
        Runtime runtime("greeter", ALONE);
        ::kill(::getpid(), SIGINT);
        int signal = 0;
        EXPECT_EQ(sigwait(&own, &signal), 0);
        EXPECT_THAT(connect("/x", 0s).error, StartsWith("504: not connected within 0 ms"));
        ::kill(::getpid(), SIGTERM);
        EXPECT_THAT(connect("/x", 1h).error, StartsWith("interrupted by SIGTERM")) << "is not its";
        EXPECT_EQ(runtime.runUntilSignal(), SIGTERM);
    }
    EXPECT_TRUE(isBlocked(SIGINT) && !isBlocked(SIGTERM));
    pthread_sigmask(SIG_UNBLOCK, &own, nullptr);
}

std::atomic<int> handled{0};

TEST_F(RuntimeTest, LetsHandlersOfTheProgramRunUntilItWaits)
{
    handled = 0;
    std::signal(SIGINT, [](int) { ++handled; });
    {
        Runtime runtime("greeter", ALONE);
        EXPECT_TRUE(!isBlocked(SIGINT) && isBlocked(SIGTERM));
        ::kill(::getpid(), SIGINT);
        EXPECT_EQ(handled, 1);
        std::signal(SIGTERM, [](int) { handled += 10; });
        for (int told = 11; told <= 21; told += 10) {
            ::kill(::getpid(), SIGTERM);
            while (handled != told) {
                std::this_thread::yield();
            }
        }
        EXPECT_THAT(connect("/x", 0s).error, StartsWith("504: not connected within 0 ms"));
        int calls = 0;
        EXPECT_EQ(runtime.runUntilSignal(1ms, [&calls] { ::kill(::getpid(), ++calls == 1 ? SIGTERM : SIGINT); }),
                  SIGTERM);
        EXPECT_EQ(handled, 21) << "it waits for one";
    }
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
}

TEST_F(RuntimeTest, WarnsOfThreadsThatTakeItsSignals)
{
    std::promise<void> isOver;
    std::thread early([&isOver] { isOver.get_future().wait(); }); // may be being started
    const ::tracing::TraceCapture traces("KESA_EASE");
    {
        Runtime runtime("greeter", ALONE);
    }
    EXPECT_THAT(traces.take(), testing::ElementsAre(HasSubstr("do not block SIGINT and SIGTERM: 'kesa_ease_tests' (")));
    isOver.set_value();
    early.join();
    std::vector<std::unique_ptr<comm::ActiveObject>> ours; // which take no signals; the last ones are being started
    for (int i = 0; i < 20; ++i) {
        ours.push_back(std::make_unique<comm::ActiveObject>("worker"));
    }
    {
        Runtime runtime("greeter", ALONE);
    }
    EXPECT_THAT(traces.take(), testing::IsEmpty());
}

TEST_F(RuntimeTest, WorksUntilASignal)
{
    Runtime runtime = startOrExit("greeter", ALONE);
    const ::tracing::TraceCapture traces("KESA_EASE");
    EXPECT_THROW(runtime.runUntilSignal(1h, [] { throw std::runtime_error("no sensor"); }), std::runtime_error);
    EXPECT_THAT(traces.take(), testing::ElementsAre(HasSubstr("[runUntilSignal] its work has thrown, which ends this "
                                                              "process unless the caller catches it: no sensor")));
    int calls = 0;
    const auto work = [&calls] {
        if (++calls == 3) {
            ::raise(SIGINT); // to this thread
        }
    };
    {
        test::AssertionRecorder misuse;
        EXPECT_EQ(runtime.runUntilSignal(0s, work), 0);
        EXPECT_THAT(misuse.take(), testing::ElementsAre(HasSubstr("give a period of more than nothing")));
    }
    EXPECT_EQ(runtime.runUntilSignal(1ns, work), SIGINT);
    runtime.end();
    EXPECT_EQ(runtime.runUntilSignal(1h, work), 0);
    EXPECT_EQ(calls, 3);
}

TEST_F(RuntimeTest, AfterItsEndAllIsRefused)
{
    Runtime runtime("greeter", ALONE);
    runtime.end();
    runtime.end();
    EXPECT_FALSE(runtime);
    EXPECT_EQ(runtime.runUntilSignal(), 0);
    const std::string none = "this process has no runtime; make a kesa::Runtime first in main, and let it end last";
    EXPECT_EQ(use("/p")->reason(), none);
    EXPECT_EQ(connect("/p", 1h).error, "503: " + none);
    EXPECT_EQ(get("/p", Request("retrieve", "/"), 1h).error, "503: " + none);
    std::string refusal;
    const auto refused = provide("/p", std::make_shared<ResourceHandler>(), {},
                                 [&refusal](const Response& e) { refusal = Response::getErrorMessageWithCode(e); });
    EXPECT_EQ(refusal, "503: " + none);
    refused->whenKnown([] {});
    EXPECT_TRUE(Runtime("again", ALONE)) << "one after the other";
}

TEST_F(RuntimeTest, SaysWhyItDoesNotStart)
{
    const char* const unreachable = R"({"use_registry": true, "backends": ["local"],
                                        "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]}})";
    const char* const why = "'greeter' did not start: its configuration names no backend";
    auto misuse = std::make_unique<test::AssertionRecorder>(); // else it would end the process
    EXPECT_EXIT(static_cast<void>(startOrExit("greeter", unreachable)), testing::ExitedWithCode(1), why);
    const auto errorOf = [](const char* name, const char* document) {
        Runtime refused(name, document);
        EXPECT_FALSE(refused);
        EXPECT_EQ(refused.runUntilSignal(), 0);
        return refused.error();
    };
    EXPECT_THAT(errorOf("greeter", unreachable), HasSubstr(why));
    misuse.reset();
    EXPECT_THAT(errorOf("\xFF", ALONE), StartsWith(R"(the runtime did not start: "\xFF" cannot be the name of this)"));
    EXPECT_FALSE(KesaRuntime::isRunning());
    const Runtime first("first", ALONE);
    EXPECT_EQ(errorOf("second", ALONE),
              "the runtime 'second' did not start: this process has one already; use that, or end it before");
    EXPECT_TRUE(first && first.error().empty() && KesaRuntime::isRunning());
    const auto inChild = [] {
        ::fputs(Runtime("child", ALONE).error().c_str(), stderr);
        ::syscall(SYS_exit_group, 0); // past ThreadSanitizer, which would tell of threads that are not there
    };
    EXPECT_EXIT(inChild(), testing::ExitedWithCode(0), "this process was forked from one that has a runtime");
}

/// What becomes of a child that crashes, and is held by `before` until its peer has seen the end of the connection.
int statusAfterCrash(int signal, void (*before)(int), void (*crash)())
{
    int sockets[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::close(sockets[0]);
        comm::OwnDescriptors::open([&] { return sockets[1]; });
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        std::signal(signal, before);
        announceCrashes();
        crash();
        ::_exit(1);
    }
    ::close(sockets[1]);
    char byte = 0;
    EXPECT_EQ(::read(sockets[0], &byte, 1), 0);
    if (before != SIG_DFL) {
        ::kill(child, SIGTERM);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(sockets[0]);
    return status;
}

TEST(AnnounceCrashes, EndsTheConnectionsFirstAndLeavesTheSignalToWhatWasThereBefore)
{
    const auto waits = [](int) {
        if (comm::OwnDescriptors::open([] { return ::socket(AF_UNIX, SOCK_STREAM, 0); }) >= 0) {
            ::_exit(2); // what other threads would connect anew
        }
        sigset_t none;
        sigemptyset(&none);
        ::sigsuspend(&none); // as long as a core may take
    };
    const int held = statusAfterCrash(SIGSEGV, waits, [] { ::raise(SIGSEGV); });
    EXPECT_TRUE(WIFSIGNALED(held) && WTERMSIG(held) == SIGTERM);
    for (const auto& [signal, crash] : {std::pair<int, void (*)()>(SIGABRT, [] { std::abort(); }),
                                        std::pair<int, void (*)()>(SIGILL, [] { __builtin_trap(); })}) {
        const int ended = statusAfterCrash(signal, SIG_DFL, crash);
        EXPECT_TRUE(WIFSIGNALED(ended) && WTERMSIG(ended) == signal) << ended;
    }
}

} // namespace
