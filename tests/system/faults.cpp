// Truth under faults: a registry, providers and watchers to which everything happens that happens to processes. A run
// is rounds of a few faults at once, drawn from a seed, without waiting for anybody to notice. Then whoever stands
// still goes on, who is missing is started again, and everybody must come to believe just what is provided. A service
// that changes in each round is among it, so that nobody passes with what was true before. Nobody may crash, and a
// registrator may hear an error only for a path that two living processes claim.

#include "FaultSystem.h"
#include "faultOptions.h"

#include <chrono>
#include <csignal>
#include <functional>
#include <iostream>
#include <utility>

namespace kesa::system_test {
namespace {

constexpr std::chrono::seconds LONG_STOP{10};
constexpr int FAULTS_BEFORE_LONG_STOP = 100;
constexpr int FAULTS_PER_LONG_STOP = 500;

class SystemFaults : public FaultSystem {
protected:
    void makeFault();
    void report() const;

private:
    struct Kind {
        const char* name;
        double weight;
        std::function<bool()> make; ///< false when it cannot be made now
        int count = 0;
    };

    /// Does that to one of them that is fit for it; false when there is none.
    template <class Work>
    bool toOne(std::vector<Member>& members, bool (*isFit)(const Member&), const Work& work)
    {
        Member* const member = drawMember(members, isFit);
        if (member != nullptr) {
            work(*member);
        }
        return member != nullptr;
    }

    bool killProvider();
    bool quitProvider();
    bool claimOfStopped();
    bool leaveChild(bool isRaw);
    bool claimTwice();
    bool claimHeld();
    bool withdraw();
    bool changeTracks();
    bool crowd();
    bool killWatcher();
    bool stuckWatcher();
    bool killRegistry();
    bool endRegistry();
    bool stopRegistry();
    bool starveRegistry();
    bool stopRegistryLong();

    std::vector<Kind> m_kinds{
        {"provider killed", 5, [this] { return killProvider(); }},
        {"provider ended", 2, [this] { return quitProvider(); }},
        {"provider stopped", 3, [this] { return toOne(m_providers, isRunning, stop); }},
        {"stopped holder's path claimed", 3, [this] { return claimOfStopped(); }},
        {"forked child left", 1, [this] { return leaveChild(false); }},
        {"child with open sockets left", 0.5, [this] { return leaveChild(true); }},
        {"free path claimed twice", 4, [this] { return claimTwice(); }},
        {"held path claimed", 3, [this] { return claimHeld(); }},
        {"withdrawn", 2, [this] { return withdraw(); }},
        {"trackings ended or begun", 3, [this] { return changeTracks(); }},
        {"crowd came and died", 0.3, [this] { return crowd(); }},
        {"watcher killed", 2, [this] { return killWatcher(); }},
        {"watcher stopped", 2, [this] { return toOne(m_watchers, isRunning, stop); }},
        {"watcher stopped while much changed", 0.5, [this] { return stuckWatcher(); }},
        {"registry killed", 2, [this] { return killRegistry(); }},
        {"registry ended", 2, [this] { return endRegistry(); }},
        {"registry stopped", 1, [this] { return stopRegistry(); }},
        {"registry without descriptors", IS_SANITIZED ? 0.0 : 1.0, [this] { return starveRegistry(); }},
        {"registry stopped for 10 s", 0, [this] { return stopRegistryLong(); }},
    };
};

void SystemFaults::makeFault()
{
    std::vector<double> weights;
    for (const Kind& kind : m_kinds) {
        weights.push_back(kind.weight);
    }
    Kind& longStop = m_kinds.back();
    Kind* kind = nullptr;
    do {
        kind = m_faults >= FAULTS_BEFORE_LONG_STOP + longStop.count * FAULTS_PER_LONG_STOP && m_isSettled
                   ? &longStop
                   : &m_kinds[std::discrete_distribution<std::size_t>(weights.begin(), weights.end())(m_random)];
    } while (!kind->make());
    ++kind->count;
    ++m_faults;
    m_isSettled = false;
}

void SystemFaults::report() const
{
    for (const Kind& kind : m_kinds) {
        std::cout << "  " << kind.count << " times: " << kind.name << '\n';
    }
}

// ---- providers ----------------------------------------------------------------------------------------------------

bool SystemFaults::killProvider()
{
    return toOne(m_providers, isAlive, [this](Member& member) {
        kill(member);
        startAgainOrNot(member);
    });
}

bool SystemFaults::quitProvider()
{
    return toOne(m_providers, isRunning, [this](Member& member) {
        member.process->send("quit");
        EXPECT_EQ(member.process->expectEnd(), 0);
        kill(member);
        startAgainOrNot(member);
    });
}

bool SystemFaults::leaveChild(bool isRaw)
{
    return toOne(m_providers, isRunning, [this, isRaw](Member& member) {
        Process& process = *member.process;
        process.send(isRaw ? "fork raw" : "fork");
        m_orphans[&process] = std::stoi(process.expect("forked"));
        process.kill();
        process.expect("orphaned");
        forget(member);
        if (!isRaw) { // else it has the name as long as it lives
            startAgainOrNot(member);
        }
    });
}

bool SystemFaults::withdraw()
{
    Member* const member = drawMember(m_providers, isRunning);
    if (member == nullptr || member->claims.empty()) {
        return false;
    }
    const std::string path = std::next(member->claims.begin(), static_cast<long>(draw(member->claims.size())))->first;
    if (m_disputed.count(path) != 0) {
        return false; // who may be refused must not withdraw
    }
    member->process->send("withdraw " + path);
    member->claims.erase(path);
    if (path.starts_with("/own/") && draw(2) == 0) {
        provide(*member, path);
    }
    return true;
}

bool SystemFaults::crowd()
{
    std::vector<Process*> crowd;
    for (int i = 0; i < 8; ++i) {
        crowd.push_back(&launch("crowd-" + std::to_string(i), WITH_REGISTRY));
        crowd.back()->send("track **");
        crowd.back()->send("provide /crowd/" + std::to_string(i));
    }
    crowd[draw(crowd.size())]->expect("provided");
    for (Process* const process : crowd) {
        expectQuiet(*process);
        process->kill();
        discard(*process);
    }
    return true;
}

// ---- claims -------------------------------------------------------------------------------------------------------

/// However long its holder stands still, it is his as long as he lives: the other one is refused before he goes on.
bool SystemFaults::claimOfStopped()
{
    const std::string& path = CONTESTED[draw(CONTESTED.size())];
    const auto holders = claimants(path);
    Member* const rival = drawMember(m_providers, isRunning);
    if (holders.size() != 1 || rival == nullptr || rival == holders.front()) {
        return false;
    }
    resumeRegistry();
    stop(*holders.front());
    provide(*rival, path);
    if (m_isSettled) { // else the registry may not know of the holder yet
        rival->process->expect("refused " + path);
        refused(*rival, path);
    }
    return true;
}

/// Who tracks everything and knows of a holder that has just died is refused by its own runtime; so it claims only what
/// it can know to be free.
bool SystemFaults::claimTwice()
{
    const std::string& path = CONTESTED[draw(CONTESTED.size())];
    Member* const first = drawMember(m_providers, isRunning);
    Member* const second = drawMember(m_providers, isRunning);
    if (!claimants(path).empty() || first == nullptr || first == second ||
        (!m_isSettled && (!first->couldTrack.empty() || !second->couldTrack.empty()))) {
        return false;
    }
    provide(*first, path);
    provide(*second, path);
    return true;
}

bool SystemFaults::claimHeld()
{
    const std::string& path = CONTESTED[draw(CONTESTED.size())];
    const auto holders = claimants(path);
    Member* const rival = drawMember(m_providers, isRunning);
    if (holders.size() != 1 || rival == nullptr || rival == holders.front() || holders.front()->isStopped) {
        return false;
    }
    provide(*rival, path);
    return true;
}

// ---- watchers -----------------------------------------------------------------------------------------------------

/// Ends and begins some, among them what goes on without a break.
bool SystemFaults::changeTracks()
{
    Member* const member = drawMember(draw(2) == 0 ? m_watchers : m_providers, isRunning);
    if (member == nullptr || member->couldTrack.empty()) {
        return false;
    }
    for (std::size_t left = 1 + draw(4); left > 0; --left) {
        const std::string& what = member->couldTrack[draw(member->couldTrack.size())];
        if (member->tracks.erase(what) != 0) {
            member->process->send("untrack " + what);
        } else {
            member->process->send("track " + what);
            member->tracks.insert(what);
        }
    }
    return true;
}

bool SystemFaults::killWatcher()
{
    return toOne(m_watchers, isAlive, [this](Member& member) {
        kill(member);
        launchMember(member);
    });
}

/// More than it has given credit for, so that the rest waits at the registry.
bool SystemFaults::stuckWatcher()
{
    const auto tracksAll = [](const Member& member) { return member.tracks.count("**") != 0; };
    return m_isSettled && toOne(m_watchers, tracksAll, [this](Member& watcher) {
               stop(watcher);
               m_witness.process->send("churn 100 20000"); // it is connected to the registry for sure
               m_witness.process->expect("churned");
           });
}

// ---- the registry -------------------------------------------------------------------------------------------------

bool SystemFaults::killRegistry()
{
    m_registry->kill();
    startRegistryAgain();
    return true;
}

bool SystemFaults::endRegistry()
{
    awaitRegistry(); // before that, a signal may end it in any way
    m_registry->signal(draw(2) == 0 ? SIGTERM : SIGINT);
    EXPECT_EQ(m_registry->expectEnd(), 0);
    startRegistryAgain();
    return true;
}

bool SystemFaults::stopRegistry()
{
    if (std::exchange(m_isRegistryStopped, true)) {
        return false;
    }
    m_registry->stop();
    return true;
}

bool SystemFaults::starveRegistry()
{
    awaitRegistry();
    m_registry->limitDescriptors(draw(3));
    return true;
}

bool SystemFaults::stopRegistryLong()
{
    stopRegistry();
    killProvider();
    killWatcher();
    withdraw();
    Process::waitForAny({}, std::chrono::steady_clock::now() + LONG_STOP); // the time is the fault
    return true;
}

TEST_F(SystemFaults, EverybodyComesToBelieveWhatIsTrue)
{
    std::cout << "  seed " << faultOptions.seed << ", " << faultOptions.count << " faults\n";
    settle();
    while (m_faults < faultOptions.count && !HasFailure()) {
        for (int left = 1 + m_faults % 4; left > 0; --left) {
            makeFault();
        }
        settle();
    }
    report();
}

} // namespace
} // namespace kesa::system_test
