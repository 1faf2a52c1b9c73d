// `kesa-registryd` as a process: that nobody has to do anything when it comes, goes or comes back. What it says is in
// the sessions of kesactl (running_errors).

#include "RawPeer.h"
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

// Its instance is in the hello that it says to everybody. It stands still, and cannot defend what it has.
TEST_F(SystemRegistry, WhoRepeatsTheInstanceOfAnotherGetsNoneOfItsPaths)
{
    startRegistry();
    Process& watcher = start("watcher", WITH_REGISTRY);
    watcher.send("track **");
    Process& holder = start("media", WITH_REGISTRY);
    holder.send("provide /player 1");
    expectBelief(watcher, "** /player 1;** /registry -");
    watcher.send("narrate");
    const std::string instance = wire::instanceIn(RawPeer(runDirectory(), "media").readFrame());
    holder.stop();
    RawPeer thief(runDirectory(), "kesa-registryd");
    thief.send(wire::hello(instance) + wire::attach(1, "/registry") + wire::registration(1, 1, "/player"));
    std::string answer = thief.readFrame();
    while (wire::kindOf(answer) <= wire::eREQUEST) {
        answer = thief.readFrame();
    }
    EXPECT_EQ(wire::kindOf(answer), wire::eERROR);
    EXPECT_EQ(wire::targetOf(answer), 409U);
    holder.resume();
    expectBelief(watcher, "** /player 1;** /registry -");
    EXPECT_EQ(watcher.findUnexpected("gone"), "");
}

// None twice: the watcher would call that broken. The simulation has every order of starts.
TEST_F(SystemRegistry, ManyProcessesOutliveItHoweverItEnds)
{
    constexpr int MANY = 40; // each has an instance of inotify, of which all tests of a user share 128
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
