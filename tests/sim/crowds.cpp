// Requests: single ones, and many at once while one of the two processes stands still, so that answers are not taken,
// time runs out, and what is between them ends in the middle of it.

#include "Run.h"

#include <kesa/responsesemantics.h>

#include <limits>

namespace kesa::sim {

namespace {

constexpr std::size_t QUEUE = 64U << 10U;
constexpr std::size_t PROCESS_QUEUE = 72U << 10U;
constexpr std::size_t LARGEST = 12U << 10U;

} // namespace

/// Queues that a burst fills. A service may have under way to one client what queue and stream hold, the answer that
/// goes beyond, and the one that the client has read a part of.
commadapter::CommSettings Run::crowdSettings(std::size_t pipeBytes)
{
    commadapter::CommSettings settings;
    settings.sendQueueBytes = QUEUE;
    if (oneIn(6)) {
        m_world.setAnswers(7 * LARGEST, 0); // in fragments: much of it may have arrived and not be complete
        m_hasFragments = true;
        return settings;
    }
    if (!oneIn(4)) {
        settings.processQueueBytes = PROCESS_QUEUE;
    }
    m_world.setAnswers(LARGEST, m_options.threads ? 0 : QUEUE + pipeBytes + 2 * LARGEST);
    return settings;
}

Wish Run::someWish()
{
    Wish wish;
    switch (draw(8)) {
    case 0:
        wish.timeLimitMs = draw(2);
        break;
    case 1:
        wish.timeLimitMs = draw(50);
        break;
    case 2:
        wish.timeLimitMs = draw(1000);
        break;
    case 3:
        wish.timeLimitMs = 1000 + draw(9000);
        break;
    case 4:
        if (oneIn(4)) {
            wish.timeLimitMs = std::numeric_limits<std::uint64_t>::max();
        } else {
            wish.isMalformed = oneIn(3);
        }
        break;
    default:
        break;
    }
    if (oneIn(4)) {
        wish.semantic = oneIn(2) ? responsesemantics::SINGLE_RESPONSE : responsesemantics::PERSISTENT_STREAM;
    }
    return wish;
}

void Run::call(Process& process)
{
    if (!process.subscriptions.empty()) {
        call(process, pick(process.subscriptions));
    }
}

void Run::call(Process& process, const Subscription& subscription)
{
    const bool isCancelled = oneIn(4);
    if (const Client client = m_world.clientOf(subscription)) {
        Wish wish = someWish();
        wish.isOfLiar = m_liar && m_world.mayLeadToLiar(subscription);
        const World::Issued issued = m_world.issue(process, client, wish);
        if (isCancelled) {
            m_world.cancel(issued);
        }
    }
}

/// A client of the asker's for a service of the provider, made when there is none.
Client Run::reach(Process& asker, Process& provider)
{
    if (Client client = m_world.clientTo(asker, provider)) {
        return client;
    }
    if (pathsOf(provider).empty()) {
        registerService(provider);
        fewSteps(60);
    }
    if (const std::vector<std::string> paths = pathsOf(provider); !paths.empty()) {
        m_world.subscribe(asker, Stream::eRESOLVE, "ipc://" + provider.name + pick(paths));
        fewSteps(120);
    }
    return m_world.clientTo(asker, provider);
}

void Run::ask(Process& asker, Client client, std::vector<World::Issued>& issued)
{
    const std::uint64_t large = oneIn(3) ? draw(4) : 20 + draw(40);
    const bool isLimited = oneIn(2);
    const std::size_t bodyBytes = oneIn(4) ? draw(m_hasFragments ? 150'000 : 6000) : 0;
    for (std::uint64_t count = large; count > 0; --count) {
        Wish wish = isLimited ? someWish() : Wish();
        wish.resource = Wish::LARGE;
        wish.bodyBytes = bodyBytes;
        if (wish.semantic == responsesemantics::PERSISTENT_STREAM) {
            wish.semantic = {};
        }
        issued.push_back(m_world.issue(asker, client, wish));
    }
    for (std::uint64_t count = draw(6); count > 0; --count) {
        issued.push_back(m_world.issue(asker, client, someWish()));
    }
}

/// Who is held asks on, gives up, or loses what it is connected to.
void Run::disturb(Process& asker, Process& provider, std::vector<World::Issued>& issued)
{
    switch (draw(9)) {
    case 0:
        m_world.network().cut(asker.group, provider.group);
        break;
    case 1:
        if (Process& victim = oneIn(2) ? asker : provider; victim.runtime) {
            m_world.kill(victim);
        }
        break;
    case 2:
        if (provider.isRunning() && !provider.registrations.empty()) {
            pick(provider.registrations).disposable.dispose();
        }
        break;
    case 3:
        if (asker.isRunning() && !asker.subscriptions.empty()) {
            m_world.dispose(pick(asker.subscriptions));
        }
        break;
    case 4:
    case 5:
        for (std::size_t index = 0; index < issued.size() && asker.isRunning(); ++index) {
            if (oneIn(2)) {
                m_world.cancel(issued[index]);
            }
        }
        break;
    case 6:
        if (asker.isRunning() && !issued.empty()) {
            ask(asker, issued.front().client, issued);
        }
        break;
    default:
        break;
    }
}

void Run::pass()
{
    if (oneIn(2)) {
        fewSteps(100);
    } else if (comm::SimulatedScheduler* const scheduler = m_world.scheduler(); scheduler != nullptr) {
        scheduler->runFor(static_cast<comm::TimeNs>(draw(oneIn(4) ? 8000 : 400)) * comm::MILLISECOND);
    }
}

/// Very many answers at once for who does not take them, or from who does not give them.
void Run::crowd(Process& asker)
{
    Process& provider = *pick(m_world.processes());
    if (!provider.isRunning()) {
        return;
    }
    const Client client = reach(asker, provider);
    if (!client) {
        return;
    }
    Process& still = oneIn(3) ? provider : asker;
    const bool isBehind = &asker == &provider || oneIn(2);
    std::vector<World::Issued> issued;
    const std::uint64_t instance = asker.group;
    if (&still == &asker && !isBehind) {
        ask(asker, client, issued); // a stopped process asks nothing
    }
    if (isBehind) {
        m_world.leaveBehind(still, IO_LOOP, static_cast<comm::TimeNs>(draw(3000)) * comm::MILLISECOND);
    } else if (!oneIn(5)) {
        m_world.stop(still);
    }
    if (asker.isRunning()) {
        ask(asker, client, issued);
    }
    for (std::uint64_t count = 1 + draw(3); count > 0 && asker.runtime && asker.group == instance; --count) {
        pass();
        disturb(asker, provider, issued);
    }
    if (oneIn(2) && still.runtime) {
        m_world.resume(still);
        pass();
    }
}

/// At the end, when nothing is queued anywhere.
void Run::checkHolds()
{
    for (auto& asker : m_world.processes()) {
        for (auto& provider : m_world.processes()) {
            if (m_world.scheduler() == nullptr || asker == provider || oneIn(2)) {
                continue;
            }
            reach(*asker, *provider);
            m_world.scheduler()->runFor(100 * comm::MILLISECOND);
            if (const Client client = m_world.clientTo(*asker, *provider)) {
                checkUnheld(*asker, client);
                if (!asker->isRegistry && oneIn(4)) {
                    checkLastRequests(*asker, client);
                }
            }
        }
    }
}

/// Whose loop is left behind with less open than queues hold is read on.
void Run::checkUnheld(Process& asker, const Client& client)
{
    m_world.leaveBehind(asker, IO_LOOP, 200 * comm::MILLISECOND);
    std::vector<World::Issued> issued;
    for (std::size_t bytes = LARGEST; bytes <= QUEUE; bytes += LARGEST) {
        issued.push_back(m_world.issue(asker, client, Wish::of(Wish::LARGE)));
        m_world.scheduler()->runFor(20 * comm::MILLISECOND); // one by one: what is read at once is answered at once
    }
    checkAsked(issued, "who has little queued is not held");
    m_world.scheduler()->runFor(200 * comm::MILLISECOND);
}

/// What a client had sent while it was held reaches the service when it dies, though a child may keep its sockets open.
void Run::checkLastRequests(Process& asker, const Client& client)
{
    std::vector<World::Issued> issued;
    for (unsigned count = 30; count > 0; --count) { // as the stream holds
        issued.push_back(m_world.issue(asker, client, Wish::of(Wish::LARGE)));
    }
    m_world.stop(asker);
    m_world.scheduler()->runFor(20 * comm::MILLISECOND);
    commadapter::transport::MemoryNetwork::Faults faults;
    faults.pipeBytes = m_pipeBytes;
    faults.draw = [this](std::uint64_t bound) { return m_networkRandom.below(bound); };
    faults.heldOpenPercent = 50;
    m_world.network().setFaults(faults);
    m_world.kill(asker);
    m_world.scheduler()->runFor(20 * comm::MILLISECOND);
    faults.draw = nullptr;
    m_world.network().setFaults(faults);
    checkAsked(issued, "what a client had sent before it died is asked");
    m_world.start(asker);
}

void Run::checkAsked(const std::vector<World::Issued>& issued, const char* rule)
{
    for (const World::Issued& each : issued) {
        if (!each.call->isAsked()) {
            m_world.verdict().fail(rule, each.call->belief()->name);
        }
    }
}

} // namespace kesa::sim
