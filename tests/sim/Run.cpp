#include "Run.h"

namespace kesa::sim {

using serviceregistry::Query;

namespace {

constexpr unsigned PROCESSES = 3; // besides the registry's
const std::vector<std::string> PATTERNS = {"**", "/s/*", "/d/**", "/s/{a,c}", "/nowhere/*", MALFORMED_PATTERN};
const std::vector<std::string> REGISTRY_PATTERNS = {"**",   "/d/*",       "/d/[ab]",        "/*/b",
                                                    "/d/c", "/nowhere/*", MALFORMED_PATTERN};

} // namespace

Run::Run(const Options& options) : m_options(options), m_world(options)
{
    m_random.state = options.seed * 2 + 1;
    m_networkRandom.state = options.seed ^ 0x5A5A5A5AULL;
}

std::vector<std::string> Run::run()
{
    SeededRandom feeds; // of its own, as the next one: what the other runs draw stays as it was
    feeds.state = m_options.seed + 1'000'000;
    m_isFeeding = m_options.feeds > 0 && feeds.below(m_options.feeds) == 0;
    drawFaults();
    SeededRandom liars;
    liars.state = m_options.seed;
    if (m_options.liars > 0 && !m_options.threads && liars.below(m_options.liars) == 0) {
        bringLiar();
    }
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
    if (m_liar) {
        endLiar();
    }
    commadapter::transport::MemoryNetwork::Faults none;
    none.pipeBytes = m_pipeBytes;
    m_world.network().setFaults(none);
    for (auto& process : m_world.processes()) {
        m_world.resume(*process);
        if (!process->runtime) {
            m_world.start(*process);
        }
    }
    m_world.settle();
    if (m_isCrowded && !m_hasFragments && !m_world.verdict().failed()) {
        checkHolds();
    }
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
    commadapter::CommSettings settings;
    settings.streamWindow = oneIn(2) ? settings.streamWindow : static_cast<std::uint32_t>(1 + draw(3000));
    m_world.setBackendSettings(settings, settings);
    if (m_options.registry && oneIn(6)) { // large records through narrow streams, and queues that overflow
        m_fillerBytes = 20000;
        faults.pipeBytes = 4096U << draw(4);
        settings.sendQueueBytes = 128U << 10U;
        m_world.setBackendSettings(settings, settings);
    } else if (oneIn(m_options.crowds)) {
        m_isCrowded = true;
        faults.pipeBytes = 4096U << draw(3);
        commadapter::CommSettings ofCrowds = crowdSettings(faults.pipeBytes);
        ofCrowds.streamWindow = settings.streamWindow;
        m_world.setBackendSettings(ofCrowds, settings);
        m_isFeeding = false;
    } else if (m_isFeeding) {
        faults.pipeBytes = 4096U << draw(3);
        const commadapter::CommSettings ofTheRegistry = settings;
        narrow(settings, faults.pipeBytes);
        m_world.setBackendSettings(settings, ofTheRegistry);
    }
    if (m_options.threads) {
        faults = {};
    }
    m_pipeBytes = faults.pipeBytes;
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

// ---- actions ------------------------------------------------------------------------------------------------------

void Run::act()
{
    if (m_liar && oneIn(3)) {
        lie();
    }
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
    if (m_isCrowded && oneIn(10)) {
        crowd(process);
        return;
    }
    if (m_isFeeding && oneIn(4)) {
        feed(process);
        return;
    }
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
        call(process);
    } else if (choice < 64) {
        if (!process.services.empty()) {
            pick(process.services)->answerOne();
        }
    } else if (choice < 66) {
        const Process& other = *pick(m_world.processes());
        m_world.network().cut(process.group, other.group);
    } else if (choice < 68) {
        leaveBehind(process);
    } else if (m_options.registry && choice < 70) {
        m_world.stop(process);
    } else if (m_options.registry && choice < 72) {
        restart(process);
    } else if (m_options.registry && choice < 75) {
        change(process);
    } else if (m_options.registry && choice < 76) {
        usurp(process);
    } else if (m_options.registry && choice < 78) {
        followClosely(process);
    } else if (m_options.registry && choice < 79) {
        claimAgain(process);
    } else if (m_options.registry && choice < 80) {
        loseWhatIsOnItsWay(process);
    } else {
        advance();
    }
}

std::string Run::somePath()
{
    if (m_options.registry) {
        if (m_liar && oneIn(6)) {
            return pick(LIARS_PATHS);
        }
        return oneIn(20) ? REGISTRY_PATH : pick(DYNAMIC_PATHS);
    }
    return oneIn(2) ? pick(STATIC_PATHS) : pick(DYNAMIC_PATHS);
}

std::string Run::someLocator()
{
    if (m_liar && oneIn(4)) {
        return "ipc://" + std::string(LIAR) + pick(oneIn(3) ? DYNAMIC_PATHS : LIARS_PATHS);
    }
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

} // namespace kesa::sim
