// Peers of another user that keep every rule, and send more than anybody needs. What they make a process keep is
// bounded in bytes and descriptors, and an honest one is served beside them. How long that takes is for no test to say.

#include "SystemTest.h"
#include "faultOptions.h"
#include "intruders.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iostream>
#include <vector>

namespace kesa::system_test {
namespace {

constexpr std::size_t MiB = 1024; // in KiB

// What one user may make a process keep: bounds of the system, with what the allocator adds.
constexpr std::size_t MOST_UNFINISHED_KIB = 192 * MiB;
constexpr std::size_t MOST_ATTACHED_KIB = 192 * MiB;
constexpr std::size_t MOST_ASKED_KIB = 96 * MiB;
constexpr std::size_t DESCRIPTORS = 256;    // that the process may have
constexpr std::size_t LEFT_FOR_OTHERS = 64; // of these
constexpr std::size_t MOST_LOGGED_BYTES = 1 << 20;
constexpr std::size_t MOST_KEPT_KIB = 24 * MiB; // of what has been given back; an allocator's
constexpr std::size_t MOST_KEPT_DESCRIPTORS = 8;

const Options OPEN{.comm = R"({"socket_mode": "0666"})", .trace = "*=3"};
const Options OPEN_REGISTRY{.comm = R"({"socket_mode": "0666"})", .trace = "*=3", .hasRegistry = true};

class SystemAmounts : public SystemTest {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root has a second user to act as";
        }
        if (IS_SANITIZED) {
            GTEST_SKIP() << "the sanitizers need memory and descriptors of their own";
        }
    }

    /// A provider and the registry, each of which anybody may connect to.
    std::array<Victim, 2> startVictims()
    {
        Process& provider = startProvider("media", "/player", OPEN);
        startBystander(PLAYER);
        Process& registry = launchRegistry(OPEN_REGISTRY);
        registry.expect("kesa-registryd: ready at ipc://kesa-registryd/registry");
        m_honest = &start("honest", WITH_REGISTRY);
        expectServed();
        return {Victim{provider, "/player"}, Victim{registry, "/registry"}};
    }
    /// Registry and provider serve those that have been there, and one that comes.
    void expectServed()
    {
        expectUndisturbed();
        const std::string path = "/honest/" + std::to_string(++m_rounds);
        m_honest->send("provide " + path);
        m_honest->expect("provided " + path);
        Process& late = start("late-" + std::to_string(m_rounds), WITH_REGISTRY);
        for (const std::string& service : {path, PLAYER}) {
            late.send("resolve " + service);
            late.expect("connected " + service);
        }
        m_honest->send("withdraw " + path);
        late.expect("lost " + path);
        discard(late);
    }

    std::vector<std::chrono::milliseconds> attackAll(const std::array<Victim, 2>& victims);

private:
    Process* m_honest = nullptr;
    int m_rounds = 0;
};

TEST_F(SystemAmounts, MessagesWithoutEndAreKeptInBounds)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        const std::size_t before = victim.process.residentKiB();
        const Intruder intruder([&](auto& peers, int) { sendUnfinished(peers, runDirectory(), victim); });
        intruder.awaitWord();
        expectServed();
        EXPECT_LT(victim.process.residentKiB(), before + MOST_UNFINISHED_KIB);
    }
}

TEST_F(SystemAmounts, PathsAndNumbersOfRequestsAreKeptInBounds)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        for (const auto act : {&attachLongPaths, &useAllNumbers}) {
            const std::size_t before = victim.process.residentKiB();
            const Intruder intruder([&](auto& peers, int) { act(peers, runDirectory(), victim); });
            intruder.awaitWord();
            expectServed();
            EXPECT_LT(victim.process.residentKiB(), before + MOST_ATTACHED_KIB);
        }
    }
}

TEST_F(SystemAmounts, ConnectionsOfOneUserLeaveDescriptorsForOthers)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        victim.process.limitDescriptors(DESCRIPTORS - victim.process.openDescriptors());
        const Intruder intruder(
            [&](auto& peers, int) { connectOften(peers, runDirectory(), victim, 2 * DESCRIPTORS); });
        intruder.awaitWord();
        expectServed();
        EXPECT_LE(victim.process.openDescriptors(), DESCRIPTORS - LEFT_FOR_OTHERS);
    }
}

TEST_F(SystemAmounts, WhoAsksWithoutPauseLeavesTurnsAndTheLogToOthers)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        const std::size_t before = victim.process.residentKiB();
        const std::size_t logged = victim.process.traces().size();
        const Intruder intruder([&](auto& peers, int told) { askForEver(peers, runDirectory(), victim, told); });
        intruder.awaitWord();
        expectServed();
        EXPECT_LT(victim.process.residentKiB(), before + MOST_ASKED_KIB);
        EXPECT_LT(victim.process.traces().size() - logged, MOST_LOGGED_BYTES);
    }
}

TEST_F(SystemAmounts, WhoAsksWithoutCreditIsCutOff)
{
    for (const Victim& victim : startVictims()) {
        SCOPED_TRACE(victim.process.name());
        const Intruder intruder([&](auto& peers, int) { askBeyondTheWindow(peers, runDirectory(), victim); });
        intruder.awaitWord();
        expectServed();
        EXPECT_NE(victim.process.traces().find("is cut off: it sends more requests than it has credit for"),
                  std::string::npos);
    }
}

/// Every attack on both victims, while honest processes come, are served and go.
std::vector<std::chrono::milliseconds> SystemAmounts::attackAll(const std::array<Victim, 2>& victims)
{
    const std::vector<void (*)(std::deque<RawPeer>&, const std::string&, const Victim&, int)> attacks{
        [](auto& peers, auto& directory, auto& victim, int) { sendUnfinished(peers, directory, victim); },
        [](auto& peers, auto& directory, auto& victim, int) { attachLongPaths(peers, directory, victim); },
        [](auto& peers, auto& directory, auto& victim, int) { connectOften(peers, directory, victim, 600); },
        [](auto& peers, auto& directory, auto& victim, int) { askAndReadNothing(peers, directory, victim); },
        [](auto& peers, auto& directory, auto& victim, int told) { askForEver(peers, directory, victim, told); },
    };
    std::vector<std::chrono::milliseconds> took;
    for (const auto attack : attacks) {
        for (const Victim& victim : victims) {
            const Intruder intruder([&](auto& peers, int told) { attack(peers, runDirectory(), victim, told); });
            intruder.awaitWord();
            const auto begin = std::chrono::steady_clock::now();
            expectServed();
            took.push_back(
                std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin));
        }
    }
    return took;
}

TEST_F(SystemAmounts, WhatIntrudersMadeThemKeepIsGivenBack)
{
    const auto victims = startVictims();
    std::array<std::size_t, 2> descriptors{victims[0].process.openDescriptors(), victims[1].process.openDescriptors()};
    std::array<std::size_t, 2> kept{};
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(faultOptions.minutes);
    for (int round = 1; round <= 2 || std::chrono::steady_clock::now() < end; ++round) {
        auto took = attackAll(victims);
        std::sort(took.begin(), took.end());
        std::cout << "  round " << round << ", served within " << took[took.size() / 2].count() << " ms, at worst "
                  << took.back().count() << " ms";
        for (std::size_t index = 0; index < victims.size(); ++index) {
            const Process& process = victims[index].process;
            const auto limit = std::chrono::steady_clock::now() + LIMIT;
            while (process.openDescriptors() > descriptors[index] + MOST_KEPT_DESCRIPTORS &&
                   std::chrono::steady_clock::now() < limit) {
                expectServed(); // the last intruder's connections are on their way out
            }
            const std::size_t resident = process.residentKiB();
            std::cout << "; " << process.name() << ' ' << resident << " KiB, " << process.openDescriptors()
                      << " descriptors";
            EXPECT_LE(process.openDescriptors(), descriptors[index] + MOST_KEPT_DESCRIPTORS);
            kept[index] = round == 1 ? resident : kept[index];
            EXPECT_LE(resident, kept[index] + MOST_KEPT_KIB);
        }
        std::cout << '\n';
        ASSERT_FALSE(HasFailure());
    }
}

} // namespace
} // namespace kesa::system_test
