// What a few processes do one after the other, so that rare orders of events become common.

#include "Run.h"

#include <functional>

namespace kesa::sim {

using serviceregistry::Query;

World::Offer Run::offerOf(const std::string& path)
{
    return {path, ServiceDef::TypeEnum::pex, pick(COLOURS), m_fillerBytes};
}

/// What it has registered.
std::vector<std::string> Run::pathsOf(const Process& process)
{
    std::vector<std::string> paths;
    for (const Registration& registration : process.registrations) {
        if (m_world.isInForce(registration)) {
            paths.push_back(registration.path);
        }
    }
    return paths;
}

/// Gone and back at once, and it does again what it did first.
void Run::restart(Process& process)
{
    const std::vector<std::string> paths = pathsOf(process);
    if (process.isRegistry && oneIn(2)) {
        m_world.end(process);
    } else {
        m_world.kill(process);
    }
    m_world.start(process);
    for (const std::string& path : paths) {
        m_world.registerService(process, offerOf(path));
    }
}

/// The same path with another record, at once.
void Run::change(Process& process)
{
    for (std::size_t index = process.registrations.size(); index > 0; --index) {
        Registration& registration = process.registrations[index - 1];
        if (m_world.isInForce(registration)) {
            registration.disposable.dispose();
            m_world.registerService(process, offerOf(registration.path));
            return;
        }
    }
}

/// Whoever watches the path by query begins to track it and ends the query, while the path goes from one process to
/// another.
void Run::followClosely(Process& process)
{
    Process& watcher = *pick(m_world.processes());
    Process& next = *pick(m_world.processes());
    const std::vector<std::string> paths = pathsOf(process);
    if (paths.empty() || &watcher == &process || !watcher.isRunning() || watcher.isRegistry) {
        return;
    }
    const std::string path = pick(paths);
    const auto track = [&] { m_world.subscribe(watcher, oneIn(2) ? Stream::eTRACK : Stream::eTRACK_RESOLVE, path); };
    const auto leave = [&] {
        for (Subscription& subscription : watcher.subscriptions) {
            if (subscription.isQuery() && !oneIn(4)) {
                m_world.dispose(subscription);
            }
        }
    };
    const auto go = [&] {
        if (oneIn(2) && !process.isRegistry) {
            m_world.kill(process);
        } else {
            for (Registration& registration : process.registrations) {
                registration.disposable.dispose();
            }
        }
    };
    const auto come = [&] {
        if (next.isRunning() && &next != &process) {
            m_world.registerService(next, offerOf(path));
        }
    };
    std::vector<std::function<void()>> acts = {track, leave, go, come};
    std::swap(acts[draw(2)], acts[draw(4)]);
    for (const auto& act : acts) {
        act();
        fewSteps(30);
    }
}

void Run::fewSteps(std::uint64_t most)
{
    for (std::uint64_t count = draw(most); count > 0 && m_world.scheduler() != nullptr; --count) {
        m_world.scheduler()->step();
    }
}

/// Claims what the process holds, which goes meanwhile; takes the claim back and makes it anew before it has heard of
/// the first one's refusal.
void Run::claimAgain(Process& process)
{
    Process& other = *pick(m_world.processes());
    for (std::size_t index = 0; index < process.registrations.size(); ++index) {
        Registration& held = process.registrations[index];
        if (!m_world.isInForce(held) || &other == &process || !other.isRunning() || other.isRegistry) {
            continue;
        }
        const World::Offer offer = offerOf(held.path);
        m_world.registerService(other, offer);
        fewSteps(60);
        held.disposable.dispose();
        fewSteps(20);
        other.registrations.back().disposable.dispose();
        m_world.registerService(other, offer);
        return;
    }
}

/// Watchers come and go, services are registered, and the registry or the connections to it end in the middle of it.
void Run::loseWhatIsOnItsWay(Process& process)
{
    const std::string path = pick(DYNAMIC_PATHS);
    if (!process.isRegistry) {
        m_world.subscribe(process, Stream::eTRACK, path);
        fewSteps(60);
        m_world.subscribe(process, Stream::eQUERY, Query("**"));
        fewSteps(8);
        m_world.dispose(process.subscriptions[process.subscriptions.size() - 2]);
        m_world.registerService(process, {pick(DYNAMIC_PATHS), ServiceDef::TypeEnum::pex, "red", m_fillerBytes});
        fewSteps(6);
    }
    Process& registry = m_world.registry();
    if (oneIn(2)) {
        m_world.network().cut(process.group, registry.group);
    } else if (registry.isRunning()) {
        m_world.end(registry);
    }
    for (auto& other : m_world.processes()) {
        if (oneIn(4) && other->isRunning() && !other->isRegistry && other.get() != &process) {
            m_world.kill(*other);
        }
    }
}

/// One of its loops, mostly the executor, is left behind. Meanwhile its program goes on, and what it is connected to is
/// lost and found again, once or twice.
void Run::leaveBehind(Process& process)
{
    static const std::vector<std::string> LOOPS = {"KesaRuntimeImpl.m_executor", "KesaRuntimeImpl.m_updater", IO_LOOP};
    const auto time = static_cast<comm::TimeNs>(100 + draw(4000)) * comm::MILLISECOND;
    m_world.leaveBehind(process, oneIn(4) ? pick(LOOPS) : LOOPS.front(), time);
    const std::uint64_t losses = 1 + draw(2);
    for (std::uint64_t count = 0; count < losses; ++count) {
        keepBusy(process);
        lose(process);
        keepBusy(process);
        if (comm::SimulatedScheduler* const scheduler = m_world.scheduler(); scheduler != nullptr && !oneIn(4)) {
            scheduler->runFor(time / static_cast<comm::TimeNs>(losses + 1));
        }
    }
    keepBusy(process);
}

void Run::keepBusy(Process& process)
{
    for (std::uint64_t count = draw(4); count > 0; --count) {
        if (oneIn(3)) {
            registerService(process);
        } else if (oneIn(2)) {
            subscribe(process);
        } else {
            dispose(process);
        }
        fewSteps(10);
    }
}

/// Of what it is connected to, the registry above all: the connections, or whoever is at their other ends.
void Run::lose(Process& process)
{
    Process& other = m_options.registry ? m_world.registry() : *pick(m_world.processes());
    if (&other == &process || !other.isRunning() || oneIn(2)) {
        m_world.network().cut(process.group, other.group);
    } else {
        restart(other);
    }
}

/// Stands still, for however long, while another registers what it holds, and may say that it is the holder. Nobody
/// loses what is his while he lives; where records are large, he may lose his connection for not taking them.
void Run::usurp(Process& process)
{
    Process& other = *pick(m_world.processes());
    comm::SimulatedScheduler* const scheduler = m_world.scheduler();
    for (const Registration& registration : process.registrations) {
        if (scheduler == nullptr || !m_world.isInForce(registration) || &other == &process || !other.isRunning()) {
            continue;
        }
        if (oneIn(3) && !other.isRegistry) {
            m_world.kill(other);
            m_world.startPosing(other, process); // meanwhile it may withdraw
        }
        m_world.stop(process);
        const bool isHeld = m_fillerBytes == 0 && !process.isRegistry && m_world.isInForce(registration) &&
                            m_world.whyNotHeld(process, registration).empty();
        m_world.registerService(other, offerOf(registration.path));
        scheduler->runFor(static_cast<comm::TimeNs>(500 + draw(2500)) * comm::MILLISECOND);
        if (const std::string why = m_world.whyNotHeld(process, registration); isHeld && !why.empty()) {
            m_world.verdict().fail("who lives keeps what is his", registration.belief->name + ": " + why);
        }
        return;
    }
}

} // namespace kesa::sim
