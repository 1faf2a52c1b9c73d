// Truth under faults: a registry, providers and watchers to which everything happens that happens to processes. A run
// is rounds of a few faults at once, drawn from a seed, without waiting for anybody to notice. Then whoever stands
// still goes on, who is missing is started again, and everybody must come to believe just what is provided. A service
// that changes in each round is among it, so that nobody passes with what was true before. Nobody may crash, and a
// registrator may hear an error only for a path that two living processes claim.

#include "SystemTest.h"
#include "faultOptions.h"

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iostream>
#include <map>
#include <random>
#include <set>

namespace kesa::system_test {
namespace {

using Facts = std::set<std::string>;

constexpr int PROVIDERS = 8;
constexpr int WATCHERS = 3;
const std::vector<std::string> CONTESTED = {"/contested/0", "/contested/1", "/contested/2"};
constexpr std::chrono::seconds LONG_STOP{10};
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true; // they need descriptors of their own
#else
constexpr bool IS_SANITIZED = false;
#endif
constexpr int FAULTS_PER_LONG_STOP = 500;

/// One name in the system, and the process that has it now.
struct Member {
    std::string name;
    std::vector<std::string> provides{};
    std::vector<std::string> couldTrack{};
    std::vector<std::string> resolves{};
    std::vector<std::string> tracks{};
    Process* process = nullptr;
    std::map<std::string, int> claims{}; ///< generation by path, of what it has registered and was not refused
    bool isStopped = false;
};

class SystemFaults : public SystemTest {
protected:
    SystemFaults();
    void makeFault();
    void settle();
    void report() const;
    int faults() const { return m_faults; }

private:
    struct Kind {
        const char* name;
        double weight;
        bool (SystemFaults::*make)(); ///< false when it cannot be made now
        int count;
    };

    std::size_t draw(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(m_random); }
    Member* drawMember(std::vector<Member>& from, bool (*isGood)(const Member&));
    static bool isRunning(const Member& member) { return member.process != nullptr && !member.isStopped; }
    static bool tracksAll(const Member& member)
    {
        return std::find(member.tracks.begin(), member.tracks.end(), "**") != member.tracks.end();
    }
    static bool isAlive(const Member& member) { return member.process != nullptr; }

    void launchMember(Member& member);
    void provide(Member& member, const std::string& path);
    void endMember(Member& member);
    void startAgainOrNot(Member& member);
    void startRegistryAgain();
    void resumeRegistry();
    void awaitRegistry();
    std::vector<Member*> claimants(const std::string& path);
    Facts provided();
    Facts factsOf(const Member& member, const Facts& provided) const;
    void awaitFacts(Member& member, const Facts& facts, bool isAll);
    void awaitClaims();
    void refused(Member& member, const std::string& path);
    void awaitOutcome(Member& member, const std::string& path);
    void checkQuiet(Member& member);

    bool killProvider();
    bool quitProvider();
    bool stopProvider();
    bool claimOfStopped();
    bool leaveChild(const std::string& how);
    bool leaveChild() { return leaveChild(""); }
    bool leaveRawChild() { return leaveChild(" raw"); }
    bool claimTwice();
    bool claimHeld();
    bool withdraw();
    bool changeTracks();
    bool crowd();
    bool killWatcher();
    bool stopWatcher();
    bool stuckWatcher();
    bool killRegistry();
    bool endRegistry();
    bool stopRegistry();
    bool starveRegistry();
    bool stopRegistryLong();

    std::mt19937_64 m_random{faultOptions.seed};
    std::vector<Kind> m_kinds;
    std::vector<Member> m_providers;
    std::vector<Member> m_watchers;
    Member m_witness{.name = "witness",
                     .couldTrack = {"**"}}; ///< nothing happens to it; it registers what changes in each round
    std::set<std::string> m_disputed;       ///< paths that several claim, as long as it is not known who has it
    std::map<Process*, pid_t> m_orphans;    ///< children of processes that are dead
    Process* m_registry = nullptr;
    bool m_isRegistryStopped = false;
    bool m_isRegistryReady = false;
    bool m_isSettled = true;
    int m_generation = 0;
    int m_expectations = 0;
    int m_faults = 0;
};

const Options REGISTRY{.comm = R"({"send_queue_bytes": 131072, "heartbeat_ms": 300})",
                       .document = Options::Document::eWITH_REGISTRY};

SystemFaults::SystemFaults()
    : m_kinds{{"provider killed", 5, &SystemFaults::killProvider, 0},
              {"provider ended", 2, &SystemFaults::quitProvider, 0},
              {"provider stopped", 3, &SystemFaults::stopProvider, 0},
              {"stopped holder's path claimed", 3, &SystemFaults::claimOfStopped, 0},
              {"forked child left", 1, &SystemFaults::leaveChild, 0},
              {"child with open sockets left", 0.5, &SystemFaults::leaveRawChild, 0},
              {"free path claimed twice", 4, &SystemFaults::claimTwice, 0},
              {"held path claimed", 3, &SystemFaults::claimHeld, 0},
              {"withdrawn", 2, &SystemFaults::withdraw, 0},
              {"trackings ended or begun", 3, &SystemFaults::changeTracks, 0},
              {"crowd came and died", 0.3, &SystemFaults::crowd, 0},
              {"watcher killed", 2, &SystemFaults::killWatcher, 0},
              {"watcher stopped", 2, &SystemFaults::stopWatcher, 0},
              {"watcher stopped until cut off", 0.5, &SystemFaults::stuckWatcher, 0},
              {"registry killed", 2, &SystemFaults::killRegistry, 0},
              {"registry ended", 2, &SystemFaults::endRegistry, 0},
              {"registry stopped", 1, &SystemFaults::stopRegistry, 0},
              {"registry without descriptors", IS_SANITIZED ? 0 : 1, &SystemFaults::starveRegistry, 0},
              {"registry stopped for 10 s", 0, &SystemFaults::stopRegistryLong, 0}}
{
    for (int i = 0; i < PROVIDERS; ++i) { // every other one is a watcher, too
        const std::string own = "/own/" + std::to_string(i);
        m_providers.push_back({"provider-" + std::to_string(i), {own + "/0", own + "/1", own + "/2"}});
        if (i % 2 == 1) {
            m_providers.back().couldTrack = {"**", CONTESTED[0], own + "/0"};
        }
    }
    for (int i = 0; i < WATCHERS; ++i) {
        m_watchers.push_back({"watcher-" + std::to_string(i),
                              {},
                              {"**", "/contested/*", "/own/0/0", CONTESTED[1], "/beacon"},
                              {"/own/0/0", "/own/1/1", CONTESTED[2]}});
    }
    m_registry = &launchRegistry(REGISTRY);
    launchMember(m_witness);
    for (std::vector<Member>* const members : {&m_providers, &m_watchers}) {
        std::for_each(members->begin(), members->end(), [this](Member& member) { launchMember(member); });
    }
}

Member* SystemFaults::drawMember(std::vector<Member>& from, bool (*isGood)(const Member&))
{
    std::vector<Member*> good;
    for (Member& member : from) {
        if (isGood(member)) {
            good.push_back(&member);
        }
    }
    return good.empty() ? nullptr : good[draw(good.size())];
}

// What it registers and what it tracks are told in either order: its own services of before may still be known.
void SystemFaults::launchMember(Member& member)
{
    Options options = WITH_REGISTRY;
    options.trace = &member == &m_witness ? "*=3" : "*=2"; // it lives as long as the run
    member.process = &launch(member.name, options);
    member.isStopped = false;
    const bool isTrackingFirst = draw(2) == 0;
    for (const bool isTracking : {isTrackingFirst, !isTrackingFirst}) {
        if (isTracking) {
            member.tracks = member.couldTrack;
            for (const std::string& what : member.tracks) {
                member.process->send("track " + what);
            }
            for (const std::string& path : member.resolves) {
                member.process->send("resolve " + path);
            }
        } else {
            for (const std::string& path : member.provides) {
                provide(member, path);
            }
        }
    }
}

void SystemFaults::provide(Member& member, const std::string& path)
{
    if (!claimants(path).empty()) {
        m_disputed.insert(path);
    }
    member.claims[path] = ++m_generation;
    member.process->send("provide " + path + ' ' + std::to_string(m_generation));
}

/// It is dead.
void SystemFaults::endMember(Member& member)
{
    EXPECT_EQ(member.process->findUnexpected("broken"), "") << member.name;
    discard(*member.process);
    member.process = nullptr;
    member.claims.clear();
    member.isStopped = false;
}

void SystemFaults::startAgainOrNot(Member& member)
{
    if (draw(4) != 0) {
        launchMember(member);
    }
}

void SystemFaults::startRegistryAgain()
{
    discard(*m_registry);
    m_registry = &launchRegistry(REGISTRY);
    m_isRegistryStopped = m_isRegistryReady = false;
}

void SystemFaults::resumeRegistry()
{
    if (m_isRegistryStopped) {
        m_registry->resume();
        m_isRegistryStopped = false;
    }
    m_registry->freeDescriptors();
}

void SystemFaults::awaitRegistry()
{
    resumeRegistry();
    if (!m_isRegistryReady) {
        m_registry->expect("kesa-registryd: ready at");
        m_isRegistryReady = true;
    }
}

std::vector<Member*> SystemFaults::claimants(const std::string& path)
{
    std::vector<Member*> found;
    for (Member& member : m_providers) {
        if (member.process != nullptr && member.claims.count(path) != 0) {
            found.push_back(&member);
        }
    }
    return found;
}

/// "PATH GENERATION" of everything.
Facts SystemFaults::provided()
{
    Facts facts{"/registry -"};
    const auto add = [&facts](const Member& member) {
        for (const auto& [path, generation] : member.claims) {
            facts.insert(path + ' ' + std::to_string(generation));
        }
    };
    add(m_witness);
    std::for_each(m_providers.begin(), m_providers.end(), add);
    return facts;
}

Facts SystemFaults::factsOf(const Member& member, const Facts& provided) const
{
    Facts facts;
    for (const std::string& service : provided) {
        const std::string path = service.substr(0, service.find(' '));
        for (const std::string& what : member.tracks) {
            const std::size_t star = what.find('*');
            if (star == std::string::npos ? what == path : path.starts_with(what.substr(0, star))) {
                facts.insert(what + ' ' + service);
            }
        }
        for (const std::string& what : member.resolves) {
            if (what == path) {
                facts.insert('=' + path + ' ' + path + " connected");
            }
        }
    }
    return facts;
}

void SystemFaults::awaitFacts(Member& member, const Facts& facts, bool isAll)
{
    std::string line = (isAll ? "expect " : "expect-some ") + std::to_string(++m_expectations) + ' ';
    for (const std::string& fact : facts) {
        line += fact + ';';
    }
    member.process->send(line);
    try {
        member.process->expect("true " + std::to_string(m_expectations));
    } catch (const Missing& missing) {
        member.process->send("beliefs");
        throw Missing("after " + std::to_string(m_faults) + " faults, it should believe " + line + "\nand believes " +
                      member.process->expect("beliefs") + '\n' + missing.what() + "\nThe registry's traces:\n" +
                      m_registry->traces());
    }
}

/// What it disposes then is nobody's service.
void SystemFaults::refused(Member& member, const std::string& path)
{
    member.claims.erase(path);
    if (draw(2) == 0) {
        member.process->send("withdraw " + path);
    }
}

/// Of those who claim a path, all but one are refused.
void SystemFaults::awaitClaims()
{
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    for (const std::string& path : CONTESTED) {
        for (auto rivals = claimants(path); rivals.size() > 1; rivals = claimants(path)) {
            std::vector<Process*> processes;
            for (Member* const rival : rivals) {
                if (rival->process->hasTold("refused " + path)) {
                    refused(*rival, path);
                    processes.clear();
                    break;
                }
                processes.push_back(rival->process);
            }
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << path << " stays claimed twice";
            if (!processes.empty()) {
                Process::waitForAny(processes, deadline);
            }
        }
        if (const auto rest = claimants(path); m_disputed.erase(path) != 0 && !rest.empty()) {
            awaitOutcome(*rest.front(), path);
        }
    }
}

/// The last one of several who claimed a path: it has it, or was refused while another one still lived.
void SystemFaults::awaitOutcome(Member& member, const std::string& path)
{
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    const std::string id = std::to_string(++m_expectations);
    m_witness.process->send("expect-some " + id + " ** " + path + ' ' + std::to_string(member.claims[path]));
    while (!m_witness.process->hasTold("true " + id)) {
        if (member.process->hasTold("refused " + path)) {
            refused(member, path);
            return;
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << path << " is neither provided nor refused";
        Process::waitForAny({m_witness.process, member.process}, deadline);
    }
}

void SystemFaults::checkQuiet(Member& member)
{
    for (const char* const bad : {"refused", "broken", "failed", "not started", "unknown"}) {
        const std::string event = member.process->findUnexpected(bad);
        ASSERT_EQ(event, "") << member.name << " told this\n"
                             << member.process->traces() << "\nThe registry's traces:\n"
                             << m_registry->traces();
    }
}

void SystemFaults::settle()
{
    std::vector<Member*> all{&m_witness};
    for (std::vector<Member>* const members : {&m_providers, &m_watchers}) {
        for (Member& member : *members) {
            if (member.isStopped) {
                member.process->resume();
                member.isStopped = false;
            }
            if (member.process != nullptr) {
                all.push_back(&member);
            }
        }
    }
    resumeRegistry();
    awaitClaims();
    m_witness.process->send("withdraw /beacon");
    provide(m_witness, "/beacon");
    const Facts truth = provided();
    for (Member* const member : all) {
        awaitFacts(*member, factsOf(*member, truth), true);
        checkQuiet(*member);
    }
    for (const auto& [process, child] : m_orphans) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        discard(*process);
    }
    m_orphans.clear();
    m_isSettled = true;
    for (Member& member : m_providers) {
        if (member.process == nullptr && draw(2) == 0) {
            launchMember(member);
        }
    }
}

void SystemFaults::makeFault()
{
    m_kinds.back().weight = 0;
    std::vector<double> weights;
    for (const Kind& kind : m_kinds) {
        weights.push_back(kind.weight);
    }
    Kind* kind = nullptr;
    do {
        kind = m_faults >= (m_kinds.back().count + 1) * FAULTS_PER_LONG_STOP && m_isSettled
                   ? &m_kinds.back()
                   : &m_kinds[std::discrete_distribution<std::size_t>(weights.begin(), weights.end())(m_random)];
    } while (!(this->*kind->make)());
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

bool SystemFaults::killProvider()
{
    Member* const member = drawMember(m_providers, isAlive);
    if (member == nullptr) {
        return false;
    }
    member->process->kill();
    endMember(*member);
    startAgainOrNot(*member);
    return true;
}

bool SystemFaults::quitProvider()
{
    Member* const member = drawMember(m_providers, isRunning);
    if (member == nullptr) {
        return false;
    }
    member->process->send("quit");
    EXPECT_EQ(member->process->expectEnd(), 0);
    endMember(*member);
    startAgainOrNot(*member);
    return true;
}

bool SystemFaults::stopProvider()
{
    Member* const member = drawMember(m_providers, isRunning);
    if (member != nullptr) {
        member->process->stop();
        member->isStopped = true;
    }
    return member != nullptr;
}

/// Longer than the second it has to prove that it lives.
bool SystemFaults::claimOfStopped()
{
    const std::string& path = CONTESTED[draw(CONTESTED.size())];
    const auto holders = claimants(path);
    Member* const rival = drawMember(m_providers, isRunning);
    if (holders.size() != 1 || rival == nullptr || rival == holders.front() || !rival->couldTrack.empty()) {
        return false;
    }
    resumeRegistry();
    if (!holders.front()->isStopped) {
        holders.front()->process->stop();
        holders.front()->isStopped = true;
    }
    provide(*rival, path);
    awaitFacts(m_witness, {"** " + path + ' ' + std::to_string(rival->claims[path])}, false);
    return true;
}

bool SystemFaults::leaveChild(const std::string& how)
{
    Member* const member = drawMember(m_providers, isRunning);
    if (member == nullptr) {
        return false;
    }
    Process& process = *member->process;
    process.send("fork" + how);
    m_orphans[&process] = std::stoi(process.expect("forked"));
    process.kill();
    process.expect("orphaned");
    member->process = nullptr;
    member->claims.clear();
    if (how.empty()) { // else it has the name as long as it lives
        startAgainOrNot(*member);
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

/// Ends and begins some, among them what goes on without a break.
bool SystemFaults::changeTracks()
{
    Member* const member = drawMember(draw(2) == 0 ? m_watchers : m_providers, isRunning);
    if (member == nullptr || member->couldTrack.empty()) {
        return false;
    }
    for (std::size_t left = 1 + draw(4); left > 0; --left) {
        const std::string& what = member->couldTrack[draw(member->couldTrack.size())];
        const auto tracked = std::find(member->tracks.begin(), member->tracks.end(), what);
        if (tracked != member->tracks.end()) {
            member->process->send("untrack " + what);
            member->tracks.erase(tracked);
        } else {
            member->process->send("track " + what);
            member->tracks.push_back(what);
        }
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
        EXPECT_EQ(process->findUnexpected("refused") + process->findUnexpected("broken"), "");
        process->kill();
        discard(*process);
    }
    return true;
}

bool SystemFaults::killWatcher()
{
    Member* const member = drawMember(m_watchers, isAlive);
    if (member == nullptr) {
        return false;
    }
    member->process->kill();
    endMember(*member);
    launchMember(*member);
    return true;
}

bool SystemFaults::stopWatcher()
{
    Member* const member = drawMember(m_watchers, isRunning);
    if (member != nullptr) {
        member->process->stop();
        member->isStopped = true;
    }
    return member != nullptr;
}

bool SystemFaults::stuckWatcher()
{
    Member* const watcher = drawMember(m_watchers, tracksAll);
    if (!m_isSettled || watcher == nullptr) {
        return false;
    }
    const std::string cut = "is cut off: ";
    const std::size_t before = m_registry->countTraces(cut);
    watcher->process->stop();
    watcher->isStopped = true;
    m_witness.process->send("churn 40 20000"); // it is connected to the registry for sure
    m_witness.process->expect("churned");
    m_registry->expectTrace(cut, before + 1);
    return true;
}

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
    if (m_isRegistryStopped) {
        return false;
    }
    m_registry->stop();
    m_isRegistryStopped = true;
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
    while (faults() < faultOptions.count && !HasFailure()) {
        for (std::size_t left = 1 + static_cast<std::size_t>(faults()) % 4; left > 0; --left) {
            makeFault();
        }
        settle();
    }
    report();
}

} // namespace
} // namespace kesa::system_test
