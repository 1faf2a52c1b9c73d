// `kesa-registryd` as a process: what it says, how it ends, and that nobody has to do anything when it comes, goes or
// comes back.

#include "SystemTest.h"

#include <sys/wait.h>

#include <csignal>

namespace kesa::system_test {
namespace {

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

// None twice: the watcher would call that broken. The simulation has every order of starts.
TEST_F(SystemRegistry, ManyProcessesOutliveItHoweverItEnds)
{
    constexpr int MANY = IS_SANITIZED ? 40 : 80; // each has an instance of inotify, of which a user gets 128
    Process* registry = &startRegistry();
    const std::string all = startProviders(MANY, 50);
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
        expectQuiet(*provider);
        EXPECT_FALSE(provider->hasEnded());
    }
}

} // namespace
} // namespace kesa::system_test
