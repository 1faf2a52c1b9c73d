// `kesa-registryd` as a process: what it says, how it ends, and that nobody has to do anything when it comes, goes or
// comes back.

#include "SystemTest.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <tuple>

namespace kesa::system_test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif
constexpr int MANY = IS_SANITIZED ? 40 : 200;

class SystemRegistry : public SystemTest {
protected:
    static bool isEndedBy(Process& registry, int signal)
    {
        registry.signal(signal);
        const int status = registry.expectEnd();
        return signal == SIGKILL ? WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL : status == 0;
    }
    /// Waits until it believes just this; facts are separated by semicolons.
    void expectBelief(Process& process, const std::string& facts)
    {
        const std::string id = std::to_string(++m_expectations);
        process.send("expect " + id + ' ' + facts);
        process.expect("true " + id);
    }
    static void expectUndisturbed(Process& process)
    {
        EXPECT_EQ(
            process.findUnexpected("refused") + process.findUnexpected("broken") + process.findUnexpected("failed"), "")
            << process.name();
    }
    /// Processes that provide, each as many services; the facts of who tracks them all.
    std::string startProviders(int processes, int services)
    {
        std::string facts = "** /registry -;";
        for (int i = 0; i < processes; ++i) {
            const std::string name = "provider-" + std::to_string(i);
            m_providers.push_back(&launch(name, WITH_REGISTRY));
            for (int k = 0; k < services; ++k) {
                const std::string service = '/' + name + '/' + std::to_string(k) + " 1";
                m_providers.back()->send("provide " + service);
                facts += "** " + service + ';';
            }
        }
        return facts;
    }
    std::vector<Process*> m_providers;

private:
    int m_expectations = 0;
};

TEST_F(SystemRegistry, SaysThatItIsReadyAndEndsInOrder)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        EXPECT_TRUE(isEndedBy(startRegistry(), signal));
        EXPECT_FALSE(isInRunDirectory("kesa-registryd.sock"));
    }
    Process& named =
        launchProgram("named", {KESA_REGISTRYD, "--name", "other"}, {.document = Options::Document::eNONE});
    named.expect("kesa-registryd: ready at ipc://other/registry");
    EXPECT_TRUE(isInRunDirectory("other.sock"));
    Process& misnamed = launchProgram("misnamed", {KESA_REGISTRYD, "--name", "another"}, WITH_REGISTRY);
    misnamed.expectTrace("which is not this process (\"another\"); give a name of those with --name");
    EXPECT_EQ(WEXITSTATUS(misnamed.expectEnd()), 2);
}

TEST_F(SystemRegistry, ASecondOneSaysWhoHasTheNameAndEnds)
{
    Process& first = startRegistry();
    Process& second = launchRegistry();
    second.expectTrace("kesa-registryd: the name \"kesa-registryd\" is held by process " + std::to_string(first.pid()));
    EXPECT_EQ(WEXITSTATUS(second.expectEnd()), 3);
    first.kill();
    startRegistry();
}

// It takes the connection with its last descriptor, and has none to watch the process with.
TEST_F(SystemRegistry, ADeathIsSeenThoughDescriptorsWereShortAndAChildKeepsTheSocketsOpen)
{
    if (IS_SANITIZED) {
        GTEST_SKIP() << "the sanitizers need descriptors of their own";
    }
    Process& registry = startRegistry();
    Process& watcher = start("watcher", WITH_REGISTRY);
    watcher.send("track **");
    expectBelief(watcher, "** /registry -");
    registry.limitDescriptors(1);
    Process& provider = start("provider", WITH_REGISTRY);
    provider.send("provide /player 1");
    expectBelief(watcher, "** /player 1;** /registry -");
    registry.freeDescriptors();
    provider.send("fork raw");
    provider.expect("forked");
    provider.kill();
    provider.expect("orphaned");
    expectBelief(watcher, "** /registry -");
}

// Each order, with the registry dying nowhere or after the first or the second start, to come back at once or when all
// others are there.
TEST_F(SystemRegistry, EveryOrderOfStartsEndsTheSame)
{
    enum { eREGISTRY, ePROVIDER, eWATCHER };
    std::array<int, 3> order{eREGISTRY, ePROVIDER, eWATCHER};
    do {
        for (const auto& [deathAfter, signal, isAtOnce] :
             {std::tuple(-1, 0, true), std::tuple(0, SIGKILL, true), std::tuple(0, SIGTERM, false),
              std::tuple(1, SIGKILL, false), std::tuple(1, SIGTERM, true)}) {
            Process* registry = nullptr;
            Process* provider = nullptr;
            Process* watcher = nullptr;
            for (int i = 0; i < 3; ++i) {
                if (order[static_cast<std::size_t>(i)] == eREGISTRY) {
                    registry = &startRegistry();
                } else if (order[static_cast<std::size_t>(i)] == ePROVIDER) {
                    provider = &start("provider", WITH_REGISTRY);
                    provider->send("provide /player 1");
                    provider->expect("provided /player");
                } else {
                    watcher = &start("watcher", WITH_REGISTRY);
                    for (const char* const command : {"track **", "track /player", "resolve /player"}) {
                        watcher->send(command);
                    }
                }
                if (i == deathAfter && registry != nullptr) {
                    EXPECT_TRUE(isEndedBy(*registry, signal));
                    discard(*std::exchange(registry, isAtOnce ? &startRegistry() : nullptr));
                }
            }
            registry = registry != nullptr ? registry : &startRegistry();
            expectBelief(*watcher, "** /player 1;** /registry -;/player /player 1;=/player /player connected");
            for (Process* const process : {watcher, provider, registry}) {
                expectUndisturbed(*process);
                process->kill();
                discard(*process);
            }
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(SystemRegistry, FiftyProcessesOutliveItHoweverItEnds)
{
    Process* registry = &startRegistry();
    const std::string all = startProviders(50, 1);
    Process& watcher = start("watcher", WITH_REGISTRY);
    watcher.send("track **");
    expectBelief(watcher, all);
    for (const int signal : {SIGTERM, SIGINT, SIGKILL}) {
        EXPECT_TRUE(isEndedBy(*registry, signal));
        expectBelief(watcher, "");
        registry = &startRegistry();
        expectBelief(watcher, all);
    }
    for (Process* const provider : m_providers) {
        expectUndisturbed(*provider);
        EXPECT_FALSE(provider->hasEnded());
    }
}

// None twice: the watcher would call that broken.
TEST_F(SystemRegistry, AllServicesOfManyProcessesComeBackWithIt)
{
    Process& registry = startRegistry();
    const std::string all = startProviders(MANY, 50);
    Process& watcher = start("watcher", WITH_REGISTRY);
    watcher.send("track **");
    expectBelief(watcher, all);
    registry.kill();
    expectBelief(watcher, "");
    startRegistry();
    expectBelief(watcher, all);
    expectUndisturbed(watcher);
    for (Process* const provider : m_providers) {
        expectUndisturbed(*provider);
    }
}

} // namespace
} // namespace kesa::system_test
