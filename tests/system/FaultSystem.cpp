#include "FaultSystem.h"

#include "faultOptions.h"

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <iostream>
#include <utility>

namespace kesa::system_test {

namespace {

constexpr int PROVIDERS = 8;
constexpr int WATCHERS = 3;
const Options REGISTRY{.comm = R"({"send_queue_bytes": 131072, "heartbeat_ms": 300})", .hasRegistry = true};

std::string factOf(const std::string& path, int generation)
{
    return path + ' ' + std::to_string(generation);
}

/// What the member believes when that is provided.
std::set<std::string> factsOf(const Member& member, const std::set<std::string>& provided)
{
    std::set<std::string> facts;
    for (const std::string& service : provided) {
        const std::string path = service.substr(0, service.find(' '));
        for (const std::string& what : member.tracks) {
            const std::size_t star = what.find('*');
            if (star == std::string::npos ? what == path : path.starts_with(what.substr(0, star))) {
                facts.insert(what == path ? service : what + ' ' + service);
            }
        }
        if (std::find(member.resolves.begin(), member.resolves.end(), path) != member.resolves.end()) {
            facts.insert('=' + path);
        }
    }
    return facts;
}

} // namespace

FaultSystem::FaultSystem() : m_random(faultOptions.seed)
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

// ---- members ------------------------------------------------------------------------------------------------------

Member* FaultSystem::drawMember(std::vector<Member>& from, bool (*isFit)(const Member&))
{
    std::vector<Member*> fit;
    for (Member& member : from) {
        if (isFit(member)) {
            fit.push_back(&member);
        }
    }
    return fit.empty() ? nullptr : fit[draw(fit.size())];
}

// What it registers and what it tracks are told in either order: its own services of before may still be known.
void FaultSystem::launchMember(Member& member)
{
    Options options = WITH_REGISTRY;
    options.trace = &member == &m_witness ? "*=3" : "*=2"; // it lives as long as the run
    member.process = &launch(member.name, options);
    member.tracks = {member.couldTrack.begin(), member.couldTrack.end()};
    const auto watch = [&member] {
        for (const std::string& what : member.couldTrack) {
            member.process->send("track " + what);
        }
        for (const std::string& path : member.resolves) {
            member.process->send("resolve " + path);
        }
    };
    const bool isWatchingFirst = draw(2) == 0;
    if (isWatchingFirst) {
        watch();
    }
    for (const std::string& path : member.provides) {
        provide(member, path);
    }
    if (!isWatchingFirst) {
        watch();
    }
}

void FaultSystem::provide(Member& member, const std::string& path)
{
    if (!claimants(path).empty()) {
        m_disputed.insert(path);
    }
    member.claims[path] = ++m_generation;
    member.process->send("provide " + factOf(path, m_generation));
}

void FaultSystem::stop(Member& member)
{
    if (!member.isStopped) {
        member.process->stop();
        member.isStopped = true;
    }
}

void FaultSystem::kill(Member& member)
{
    member.process->kill();
    EXPECT_EQ(member.process->findUnexpected("broken"), "") << member.name;
    discard(*member.process);
    forget(member);
}

void FaultSystem::forget(Member& member)
{
    member.process = nullptr;
    member.claims.clear();
    member.isStopped = false;
}

void FaultSystem::startAgainOrNot(Member& member)
{
    if (draw(4) != 0) {
        launchMember(member);
    }
}

// ---- the registry -------------------------------------------------------------------------------------------------

void FaultSystem::startRegistryAgain()
{
    discard(*m_registry);
    m_registry = &launchRegistry(REGISTRY);
    m_isRegistryStopped = m_isRegistryReady = false;
}

void FaultSystem::resumeRegistry()
{
    if (std::exchange(m_isRegistryStopped, false)) {
        m_registry->resume();
    }
    m_registry->freeDescriptors();
}

void FaultSystem::awaitRegistry()
{
    resumeRegistry();
    if (!std::exchange(m_isRegistryReady, true)) {
        m_registry->expect("kesa-registryd: ready at");
    }
}

// ---- the truth ----------------------------------------------------------------------------------------------------

std::vector<Member*> FaultSystem::claimants(const std::string& path)
{
    std::vector<Member*> found;
    for (Member& member : m_providers) {
        if (member.claims.count(path) != 0) {
            found.push_back(&member);
        }
    }
    return found;
}

/// "PATH GENERATION" of everything.
FaultSystem::Facts FaultSystem::provided() const
{
    Facts facts{"/registry -"};
    const auto add = [&facts](const Member& member) {
        for (const auto& [path, generation] : member.claims) {
            facts.insert(factOf(path, generation));
        }
    };
    add(m_witness);
    std::for_each(m_providers.begin(), m_providers.end(), add);
    return facts;
}

/// It says "true" and the number that is returned once it believes that.
std::string FaultSystem::ask(Member& member, const Facts& facts, bool isAll)
{
    const std::string number = std::to_string(++m_questions);
    std::string line = (isAll ? "expect " : "expect-some ") + number + ' ';
    for (const std::string& fact : facts) {
        line += fact + ';';
    }
    member.process->send(line);
    return number;
}

void FaultSystem::awaitFacts(Member& member, const Facts& facts, bool isAll)
{
    try {
        member.process->expect("true " + ask(member, facts, isAll));
    } catch (const Missing& missing) {
        member.process->send("beliefs");
        std::string others;
        for (const Member& provider : m_providers) {
            const std::string traces = provider.process == nullptr ? "ended" : provider.process->traces();
            others +=
                provider.name + ": " + traces.substr(traces.size() - std::min<std::size_t>(traces.size(), 3000)) + '\n';
        }
        throw Missing("after " + std::to_string(m_faults) + " faults, it should believe " +
                      testing::PrintToString(facts) + "\nand believes " + member.process->expect("beliefs") + '\n' +
                      missing.what() + "\nThe registry's traces:\n" + m_registry->traces() +
                      "\nThe providers' traces:\n" + others);
    }
}

/// What it disposes then is nobody's service.
void FaultSystem::refused(Member& member, const std::string& path)
{
    member.claims.erase(path);
    if (draw(2) == 0) {
        member.process->send("withdraw " + path);
    }
}

/// Of those who claim the path, all but one are refused; the last one has it, or was refused, too, while another one
/// still lived.
void FaultSystem::awaitOneClaimant(const std::string& path)
{
    const auto deadline = std::chrono::steady_clock::now() + LIMIT;
    std::string question; // to the witness
    for (auto rivals = claimants(path); !rivals.empty(); rivals = claimants(path)) {
        const auto isRefused = [&path](Member* rival) { return rival->process->hasTold("refused " + path); };
        const auto loser = std::find_if(rivals.begin(), rivals.end(), isRefused);
        if (loser != rivals.end()) {
            refused(**loser, path);
            continue;
        }
        std::vector<Process*> heard;
        for (const Member* const rival : rivals) {
            heard.push_back(rival->process);
        }
        if (rivals.size() == 1) {
            if (question.empty()) {
                question = ask(m_witness, {"** " + factOf(path, rivals.front()->claims[path])}, false);
            }
            if (m_witness.process->hasTold("true " + question)) {
                return;
            }
            heard.push_back(m_witness.process);
        }
        ASSERT_LT(std::chrono::steady_clock::now(), deadline)
            << path << " is claimed by " << rivals.size() << ", and neither provided nor refused";
        Process::waitForAny(heard, deadline);
    }
}

/// All who live.
std::vector<Member*> FaultSystem::resumeAll()
{
    resumeRegistry();
    std::vector<Member*> all{&m_witness};
    for (std::vector<Member>* const members : {&m_providers, &m_watchers}) {
        for (Member& member : *members) {
            if (std::exchange(member.isStopped, false)) {
                member.process->resume();
            }
            if (isAlive(member)) {
                all.push_back(&member);
            }
        }
    }
    return all;
}

void FaultSystem::settle()
{
    const std::vector<Member*> all = resumeAll();
    for (const std::string& path : std::exchange(m_disputed, {})) {
        awaitOneClaimant(path);
    }
    m_witness.process->send("withdraw /beacon");
    provide(m_witness, "/beacon");
    const Facts truth = provided();
    for (Member* const member : all) {
        awaitFacts(*member, factsOf(*member, truth), true);
        expectQuiet(*member->process);
    }
    if (HasFailure()) {
        std::cout << "The registry's traces:\n" << m_registry->traces();
    }
    for (const auto& [process, child] : std::exchange(m_orphans, {})) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        discard(*process);
    }
    m_isSettled = true;
    for (Member& member : m_providers) {
        if (!isAlive(member) && draw(2) == 0) {
            launchMember(member);
        }
    }
}

} // namespace kesa::system_test
