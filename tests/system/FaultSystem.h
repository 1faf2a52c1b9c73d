#ifndef KESA_TESTS_SYSTEM_FAULTSYSTEM_H
#define KESA_TESTS_SYSTEM_FAULTSYSTEM_H

#include "SystemTest.h"

#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace kesa::system_test {

inline const std::vector<std::string> CONTESTED = {"/contested/0", "/contested/1", "/contested/2"};

/// One name in the system, and the process that has it now.
struct Member {
    std::string name;
    std::vector<std::string> provides{};
    std::vector<std::string> couldTrack{};
    std::vector<std::string> resolves{};
    std::set<std::string> tracks{};
    Process* process = nullptr;
    std::map<std::string, int> claims{}; ///< generation by path, of what it has registered and was not refused
    bool isStopped = false;
};

inline bool isAlive(const Member& member)
{
    return member.process != nullptr;
}
inline bool isRunning(const Member& member)
{
    return isAlive(member) && !member.isStopped;
}

/// The processes to which faults happen, what can be done to them, and what all must come to believe.
class FaultSystem : public SystemTest {
protected:
    using Facts = std::set<std::string>;

    FaultSystem();

    std::size_t draw(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(m_random); }
    Member* drawMember(std::vector<Member>& from, bool (*isFit)(const Member&));

    void launchMember(Member& member);
    void provide(Member& member, const std::string& path);
    static void stop(Member& member);
    void kill(Member& member);
    /// After its death.
    void forget(Member& member);
    void startAgainOrNot(Member& member);

    void startRegistryAgain();
    void resumeRegistry();
    void awaitRegistry();

    std::vector<Member*> claimants(const std::string& path);
    void refused(Member& member, const std::string& path);
    void awaitFacts(Member& member, const Facts& facts, bool isAll);
    /// Whoever stands still goes on, and all come to believe what is provided.
    void settle();

    std::mt19937_64 m_random;
    std::vector<Member> m_providers;
    std::vector<Member> m_watchers;
    /// Nothing happens to it; it registers what changes in each round.
    Member m_witness{.name = "witness", .couldTrack = {"**"}};
    Process* m_registry = nullptr;
    bool m_isRegistryStopped = false;
    std::set<std::string> m_disputed;    ///< paths that several claim, as long as it is not known who has it
    std::map<Process*, pid_t> m_orphans; ///< children of processes that are dead
    bool m_isSettled = true;
    int m_faults = 0;

private:
    Facts provided() const;
    std::string ask(Member& member, const Facts& facts, bool isAll);
    void awaitOneClaimant(const std::string& path);
    std::vector<Member*> resumeAll();

    bool m_isRegistryReady = false;
    int m_generation = 0;
    int m_questions = 0;
};

} // namespace kesa::system_test

#endif
