// A client that follows its service, over the ends and returns of the registry and of the provider.

#include "SystemTest.h"
#include "faultOptions.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <iostream>

namespace kesa::system_test {
namespace {

class SystemUse : public SystemTest {
protected:
    /// The stream goes on for so many values more.
    void expectProgress(int values)
    {
        m_reached += values;
        const std::string target = "/p " + std::to_string(m_reached);
        m_user->send("reach " + target);
        m_user->expect("reached " + target);
    }
    Process& startTicking()
    {
        Process& provider = startProvider("provider", "/p", WITH_REGISTRY);
        provider.send("tick");
        return provider;
    }
    static std::size_t count(Process& actor, const std::string& event)
    {
        const auto& history = actor.history();
        return static_cast<std::size_t>(std::count(history.begin(), history.end(), event));
    }

    Process* m_user = nullptr;
    int m_reached = 0;
};

TEST_F(SystemUse, LosesAndRepeatsNothingWhileOnlyTheRegistryEndsAndReturns)
{
    Process* registry = &startRegistry();
    Process& provider = startTicking();
    m_user = &start("user", WITH_REGISTRY);
    m_user->send("track /p");
    m_user->send("use /p");
    m_user->expect("there /p");
    expectProgress(1000);
    const int rounds = faultOptions.restarts > 0 ? faultOptions.restarts : 3;
    for (int round = 0; round < rounds; ++round) {
        registry->signal(round % 2 == 0 ? SIGKILL : SIGTERM);
        registry->expectEnd();
        m_user->send("expect gone-" + std::to_string(round) + ' '); // the tracking knows
        m_user->expect("true gone-" + std::to_string(round));
        expectProgress(300);
        registry = &startRegistry();
        m_user->send("expect back-" + std::to_string(round) + " /p -");
        m_user->expect("true back-" + std::to_string(round));
        expectProgress(300);
    }
    provider.send("untick");
    const std::string last = "/p " + provider.expect("ticked");
    std::cout << "  " << rounds << " restarts, last value and path: " << last << std::endl;
    m_user->send("reach " + last);
    m_user->expect("reached " + last);
    EXPECT_EQ(count(*m_user, "began /p"), 1U);
    for (const char* const bad : {"gap", "gone", "unfollowed"}) {
        EXPECT_EQ(m_user->findUnexpected(bad), "");
    }
}

TEST_F(SystemUse, FollowsAProviderWithAndWithoutTheRegistry)
{
    Process* registry = &startRegistry();
    m_user = &start("user", WITH_REGISTRY);
    m_user->send("use /p");
    for (const bool isRegistryLost : {false, true}) {
        Process& provider = startTicking();
        m_user->expect("there /p");
        m_user->expect("began /p");
        m_reached = 0;
        expectProgress(10);
        if (isRegistryLost) {
            registry->kill();
            expectProgress(10);
        }
        provider.kill();
        m_user->expect("gone /p");
    }
    startTicking(); // which nobody can know
    registry = &startRegistry();
    m_user->expect("there /p");
    m_user->expect("began /p");
    EXPECT_EQ(m_user->findUnexpected("unfollowed"), "");
}

TEST_F(SystemUse, FindsItsServiceAgainInARunDirectoryThatIsMadeAnew)
{
    namespace fs = std::filesystem;
    m_user = &start("user", WITH_REGISTRY);
    m_user->send("use /p");
    m_user->send("resolve /p");
    m_user->send("provide /own");
    m_user->expect("provided /own");
    for (const bool isRemoved : {false, false, true, true, false}) {
        Process& registry = startRegistry();
        Process& provider = startTicking();
        m_user->expect("there /p");
        m_user->expect("connected /p");
        m_user->expect("began /p");
        m_reached = 0;
        expectProgress(10);
        registry.kill();
        provider.kill();
        m_user->expect("gone /p");
        m_user->expect("lost /p");
        for (const auto& file : fs::directory_iterator(runDirectory())) {
            fs::remove(file);
        }
        if (isRemoved) {
            fs::remove(runDirectory());
        }
    }
    m_user->send("resolve /own");
    m_user->expect("connected /own");
    EXPECT_EQ(m_user->findUnexpected("unfollowed"), "");
}

TEST_F(SystemUse, GetsOverAMomentWithoutDescriptors)
{
    if (IS_SANITIZED) {
        GTEST_SKIP() << "the sanitizers need descriptors of their own";
    }
    m_user = &start("user", WITH_REGISTRY);
    m_user->send("use /p");
    m_user->expectTrace("'ipc://kesa-registryd' is not connected");
    startRegistry();
    m_user->expectTrace("'ipc://kesa-registryd' is connected now");
    m_user->limitDescriptors(0);
    startTicking(); // of a realm that the user has to look up
    m_user->expectTrace("is not connected: cannot read which realm the run directory has: Too many open files");
    m_user->send("provide /q");
    m_user->expect("refused /q 409");
    m_user->expectTrace("\": Too many open files; this process has used up its descriptors: let it have more");
    m_user->freeDescriptors();
    m_user->expect("there /p");
    m_user->send("provide /q");
    m_user->expect("provided /q");
}

} // namespace
} // namespace kesa::system_test
