#include "Run.h"

#include <mutex>

namespace kesa::sim {

using serviceregistry::Query;

namespace {

constexpr unsigned PROCESSES = 3; // besides the registry's
const std::vector<std::string> PATTERNS = {"**", "/s/*", "/d/**", "/s/{a,c}", "/nowhere/*", MALFORMED_PATTERN};
const std::vector<std::string> REGISTRY_PATTERNS = {"**",   "/d/*",       "/d/[ab]",        "/*/b",
                                                    "/d/c", "/nowhere/*", MALFORMED_PATTERN};
const std::vector<std::string> COLOURS = {"red", "blue"};

} // namespace

Run::Run(const Options& options) : m_options(options), m_world(options)
{
    m_random.state = options.seed * 2 + 1;
    m_networkRandom.state = options.seed ^ 0x5A5A5A5AULL;
}

std::vector<std::string> Run::run()
{
    drawFaults();
    if (m_options.registry) {
        m_world.add(REGISTRY_PROCESS);
    }
    for (unsigned index = 0; index < PROCESSES; ++index) {
        m_world.add("p" + std::to_string(index));
    }
    for (auto& process : m_world.processes()) {
        if (!m_options.registry || !oneIn(3)) {
            m_world.start(*process);
        }
    }
    for (unsigned step = 0; step < m_options.steps && !m_world.verdict().failed(); ++step) {
        act();
    }
    m_world.network().setFaults({});
    for (auto& process : m_world.processes()) {
        m_world.resume(*process);
        if (!process->runtime) {
            m_world.start(*process);
        }
    }
    m_world.settle();
    m_world.disposeAll();
    m_world.endAll();
    return m_world.verdict().failures();
}

// ---- faults -------------------------------------------------------------------------------------------------------

/// Each run leaves some kinds out and overdoes others.
void Run::drawFaults()
{
    commadapter::transport::MemoryNetwork::Faults faults;
    if (draw(3) != 0) {
        faults.draw = [this](std::uint64_t bound) { return m_networkRandom.below(bound); };
        faults.shortWritePercent = static_cast<unsigned>(draw(2) * draw(60));
        faults.shortReadPercent = static_cast<unsigned>(draw(2) * draw(60));
        faults.refusePercent = static_cast<unsigned>(draw(2) * draw(50));
        faults.longestDelay = static_cast<comm::TimeNs>(draw(2) * draw(20)) * comm::MILLISECOND;
        if (m_options.registry) {
            faults.heldOpenPercent = static_cast<unsigned>(draw(2) * draw(100));
        }
    }
    if (m_options.registry && oneIn(6)) { // large records through narrow streams, and queues that overflow
        m_fillerBytes = 20000;
        faults.pipeBytes = 4096U << draw(4);
        commadapter::CommSettings settings;
        settings.sendQueueBytes = 128U << 10U;
        m_world.setBackendSettings(settings);
    }
    if (m_options.threads) {
        faults = {};
    }
    m_world.network().setFaults(faults);
    m_world.refuseSome(oneIn(4));
}

void Run::advance()
{
    comm::SimulatedScheduler* const scheduler = m_world.scheduler();
    if (scheduler == nullptr) {
        return;
    }
    switch (draw(m_options.registry ? 8 : 4)) {
    case 0:
        scheduler->runReady();
        break;
    case 1:
        scheduler->runFor(static_cast<comm::TimeNs>(draw(200)) * comm::MILLISECOND);
        break;
    case 7:
        scheduler->runFor(static_cast<comm::TimeNs>(draw(8000)) * comm::MILLISECOND);
        break;
    default:
        for (std::uint64_t count = draw(40); count > 0; --count) {
            scheduler->step();
        }
    }
}

/// Gone and back at once, and it does again what it did first.
void Run::restart(Process& process)
{
    std::vector<std::string> paths;
    for (const Registration& registration : process.registrations) {
        if (m_world.isInForce(registration)) {
            paths.push_back(registration.path);
        }
    }
    if (process.isRegistry && oneIn(2)) {
        m_world.end(process);
    } else {
        m_world.kill(process);
    }
    m_world.start(process);
    for (const std::string& path : paths) {
        m_world.registerService(process, {path, ServiceDef::TypeEnum::pex, pick(COLOURS), m_fillerBytes});
    }
}

// ---- actions ------------------------------------------------------------------------------------------------------

void Run::act()
{
    Process& process = *pick(m_world.processes());
    if (process.isStopped) {
        actWhileStopped(process);
    } else if (process.runtime) {
        actOf(process);
    } else if (oneIn(2)) {
        m_world.start(process);
    } else {
        advance();
    }
}

void Run::actWhileStopped(Process& process)
{
    const std::uint64_t choice = draw(20);
    if (choice == 0) {
        m_world.kill(process);
    } else if (choice < 5) {
        m_world.resume(process);
    } else {
        advance();
    }
}

void Run::actOf(Process& process)
{
    const std::uint64_t choice = draw(100);
    if (choice < 3) {
        m_world.kill(process);
    } else if (choice < 5) {
        m_world.end(process);
    } else if (choice < 18) {
        registerService(process);
    } else if (choice < 38) {
        subscribe(process);
    } else if (choice < 48) {
        dispose(process);
    } else if (choice < 50) {
        disposeAgain(process);
    } else if (choice < 58) {
        if (!process.subscriptions.empty()) {
            m_world.call(process, pick(process.subscriptions), oneIn(4));
        }
    } else if (choice < 64) {
        if (!process.services.empty()) {
            pick(process.services)->answerOne();
        }
    } else if (choice < 66) {
        const Process& other = *pick(m_world.processes());
        m_world.network().cut(process.group, other.group);
    } else if (m_options.registry && choice < 68) {
        m_world.stop(process);
    } else if (m_options.registry && choice < 70) {
        restart(process);
    } else if (m_options.registry && choice < 73) {
        change(process);
    } else if (m_options.registry && choice < 74) {
        usurp(process);
    } else if (m_options.registry && choice < 76) {
        followClosely(process);
    } else if (m_options.registry && choice < 77) {
        claimAgain(process);
    } else if (m_options.registry && choice < 78) {
        loseWhatIsOnItsWay(process);
    } else {
        advance();
    }
}

std::string Run::somePath()
{
    if (m_options.registry) {
        return oneIn(20) ? REGISTRY_PATH : pick(DYNAMIC_PATHS);
    }
    return oneIn(2) ? pick(STATIC_PATHS) : pick(DYNAMIC_PATHS);
}

std::string Run::someLocator()
{
    const std::string path = m_options.registry || oneIn(2) ? pick(DYNAMIC_PATHS) : pick(STATIC_PATHS);
    const std::string owner = isStatic(path) ? ownerOf(path) : "p" + std::to_string(draw(PROCESSES));
    return (oneIn(5) ? "tcp://" : "ipc://") + owner + path;
}

Query Run::someQuery()
{
    if (!m_options.registry) {
        return Query(pick(PATTERNS));
    }
    Query query(pick(REGISTRY_PATTERNS));
    if (oneIn(3)) {
        query.metadata.emplace();
        if (oneIn(4)) {
            query.metadata->set("id", "");
        } else {
            query.metadata->set("colour", pick(COLOURS));
        }
    }
    if (oneIn(3)) {
        query.includeMetadata = oneIn(2);
    }
    if (oneIn(4)) {
        query.scope = "anything"; // services without a scope match all
    }
    return query;
}

void Run::registerService(Process& process)
{
    std::string path = somePath();
    if (path == REGISTRY_PATH) {
        path = DYNAMIC_PATHS.front();
    }
    const auto type = oneIn(12) ? ServiceDef::TypeEnum::lomo : ServiceDef::TypeEnum::pex;
    m_world.registerService(process, {path, type, pick(COLOURS), m_fillerBytes});
}

void Run::subscribe(Process& process)
{
    const auto kind = static_cast<Stream>(draw(5));
    switch (kind) {
    case Stream::eQUERY:
    case Stream::eQUERY_RESOLVE:
        m_world.subscribe(process, kind, someQuery());
        break;
    case Stream::eRESOLVE:
        m_world.subscribe(process, kind, someLocator());
        break;
    case Stream::eTRACK:
    case Stream::eTRACK_RESOLVE:
        m_world.subscribe(process, kind, somePath());
        break;
    }
}

void Run::dispose(Process& process)
{
    const std::size_t total = process.subscriptions.size() + process.registrations.size();
    if (total == 0) {
        return;
    }
    const std::size_t index = draw(total);
    if (index < process.subscriptions.size()) {
        m_world.dispose(process.subscriptions[index]);
    } else {
        process.registrations[index - process.subscriptions.size()].disposable.dispose();
    }
}

void Run::disposeAgain(Process& process)
{
    for (auto& subscription : process.subscriptions) {
        if (subscription.disposed) {
            subscription.disposable.dispose();
        }
    }
}

/// The same path with another record, at once.
void Run::change(Process& process)
{
    for (std::size_t index = process.registrations.size(); index > 0; --index) {
        Registration& registration = process.registrations[index - 1];
        if (m_world.isInForce(registration)) {
            registration.disposable.dispose();
            m_world.registerService(process,
                                    {registration.path, ServiceDef::TypeEnum::pex, pick(COLOURS), m_fillerBytes});
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
    std::vector<std::string> paths;
    for (const Registration& registration : process.registrations) {
        if (m_world.isInForce(registration)) {
            paths.push_back(registration.path);
        }
    }
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
            m_world.registerService(next, {path, ServiceDef::TypeEnum::pex, pick(COLOURS), m_fillerBytes});
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
        const World::Offer offer{held.path, ServiceDef::TypeEnum::pex, pick(COLOURS), m_fillerBytes};
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

/// Stands still while another registers what it holds; it may be for too long to be taken to live.
void Run::usurp(Process& process)
{
    Process& other = *pick(m_world.processes());
    for (const Registration& registration : process.registrations) {
        if (m_world.isInForce(registration) && &other != &process && other.isRunning()) {
            m_world.stop(process);
            m_world.registerService(other,
                                    {registration.path, ServiceDef::TypeEnum::pex, pick(COLOURS), m_fillerBytes});
            if (comm::SimulatedScheduler* const scheduler = m_world.scheduler()) {
                scheduler->runFor(static_cast<comm::TimeNs>(500 + draw(2500)) * comm::MILLISECOND);
            }
            return;
        }
    }
}

} // namespace kesa::sim
