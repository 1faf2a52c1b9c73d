// Bursts of registrations while the registry is killed or ended and started again in their midst: once all are
// disposed, the registry lists none of them. "Held": the executor stays inside one registrator's `onNext` until the I/O
// loop is connected again, so that the loss and the return are both behind it in its queue.

#include "SystemTest.h"
#include "faultOptions.h"

#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <tuple>

namespace kesa::system_test {
namespace {

using Cell = std::tuple<bool, int>; // held, signal

class SystemGhosts : public SystemTest, public testing::WithParamInterface<Cell> {
protected:
    const bool m_isHeld = std::get<0>(GetParam());
    const int m_signal = std::get<1>(GetParam());
    Process* m_registry = &startRegistry();
    // Its runtime traces each registration at each loss.
    Process& m_provider = start(
        "provider", {.trace = "*=3,KESA_RUNTIME_MAIN=5,KESA_COMM=2", .document = Options::Document::eWITH_REGISTRY});
    int m_restarts = 0;
    int m_rounds = 0;

    /// Returns when the provider's I/O loop is connected to the new one.
    void restartRegistry()
    {
        const std::string connected = "answers as 'kesa-registryd'";
        const std::size_t before = m_provider.countTraces(connected);
        ++m_restarts;
        m_registry->signal(m_signal);
        const int status = m_registry->expectEnd();
        EXPECT_EQ(m_signal == SIGKILL ? WTERMSIG(status) : status, m_signal == SIGKILL ? SIGKILL : 0);
        discard(*m_registry);
        m_registry = &startRegistry();
        m_provider.expectTrace(connected, before + 1);
    }

    /// What somebody who has not been there before is told by the registry, once it lists `path`.
    std::size_t countListed(const std::string& path)
    {
        Process& waiting = launchProgram("waiting", {KESACTL, "wait", path, "--timeout", "60"}, WITH_REGISTRY);
        EXPECT_EQ(waiting.expectEnd(), 0);
        discard(waiting);
        Process& asker = launchProgram("asker", {KESACTL, "list", "--json", "--timeout", "60"}, WITH_REGISTRY);
        asker.expectLineWith("\"path\"", "\"/registry\""); // the last one
        EXPECT_EQ(asker.expectEnd(), 0);
        const auto& lines = asker.history();
        const auto listed = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("\"/burst/") != std::string::npos;
        });
        discard(asker);
        return static_cast<std::size_t>(listed);
    }

    void burst(const std::string& name, std::size_t count, std::size_t at, const char* hold = "")
    {
        m_provider.send("burst " + name + ' ' + std::to_string(count) + ' ' + std::to_string(at) + ' ' + hold);
    }

    /// Half of them are registered before, half while the executor stands. In every other round the registry is lost
    /// twice meanwhile.
    void burstHeld(const std::string& name, std::size_t count)
    {
        burst(name, count / 2, 1, "hold");
        m_provider.expect("reached " + name);
        m_provider.expect("registered " + name);
        burst(name + "-held", count - count / 2, count / 2);
        m_provider.expect("registered " + name + "-held");
        for (int losses = 1 + m_rounds % 2; losses > 0; --losses) {
            restartRegistry();
            EXPECT_EQ(countListed("/registry"),
                      0U); // after this answer the registry has answered the provider's connection, too
        }
        m_provider.send("release");
    }

    void burstFree(const std::string& name, std::size_t count)
    {
        burst(name, count, 1 + count * static_cast<std::size_t>(m_rounds % 4) / 4);
        m_provider.expect("reached " + name);
        restartRegistry();
    }

    /// How many are still listed in the end. In half of the rounds they are disposed before all were provided.
    std::size_t runRound(std::size_t count)
    {
        const std::string name = std::to_string(++m_rounds);
        m_isHeld ? burstHeld(name, count) : burstFree(name, count);
        if (m_rounds % 4 < 2) {
            m_provider.expect("provided-all " + name);
            if (m_isHeld) {
                m_provider.expect("provided-all " + name + "-held");
            }
        }
        m_provider.send("dispose-burst");
        const std::string last = "/last/" + name; // the registry reads what its process says in order
        m_provider.send("provide " + last);
        const std::size_t listed = countListed(last);
        m_provider.send("withdraw " + last);
        return listed;
    }
};

TEST_P(SystemGhosts, NothingThatWasDisposedIsListed)
{
    const bool isLarge = faultOptions.restarts > 0;
    if (!isLarge && !m_isHeld) {
        GTEST_SKIP() << "Free finds nothing in a few small bursts; see --restarts";
    }
    for (const std::size_t count : isLarge ? std::vector<std::size_t>{20, 5000, 20000} : std::vector<std::size_t>{20}) {
        std::size_t listed = 0;
        for (m_restarts = 0; m_restarts < (isLarge ? faultOptions.restarts : 4) && listed == 0;) {
            listed = runRound(count);
        }
        std::cout << "  burst " << count << ": " << m_restarts << " restarts, " << listed << " listed" << std::endl;
        ASSERT_EQ(listed, 0U);
        expectQuiet(m_provider);
    }
}

INSTANTIATE_TEST_SUITE_P(Cells, SystemGhosts, testing::Combine(testing::Bool(), testing::Values(SIGKILL, SIGTERM)),
                         [](const testing::TestParamInfo<Cell>& cell) {
                             return std::string(std::get<0>(cell.param) ? "Held" : "Free") +
                                    (std::get<1>(cell.param) == SIGKILL ? "Killed" : "Ended");
                         });

} // namespace
} // namespace kesa::system_test
