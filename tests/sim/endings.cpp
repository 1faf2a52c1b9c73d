// What has to be true of every refusal, and of what is left when all is taken back or ends.

#include "World.h"

#include <kesa/core/response_handlers.h>

#include <algorithm>

namespace kesa::sim {

namespace {

/// How long it takes at most until a process has heard what happened, if nothing stands still.
constexpr comm::TimeNs NEWS_TIME = 3 * comm::SECOND;

} // namespace

// ---- refusals -----------------------------------------------------------------------------------------------------

void World::checkRefusals()
{
    if (!hasRegistry()) {
        return;
    }
    for (const Claim& claim : m_claims) {
        const Belief& belief = *claim.belief;
        const bool isDead = belief.ended.number != 0 && belief.ended.number < belief.failed.number;
        if (belief.failed.number != 0 && !isDead && (belief.error != 409 || !isDoubleClaim(belief))) {
            m_verdict->fail("only a double claim is refused", belief.name + ": " + std::to_string(belief.error));
        }
    }
}

/// The registry may refuse only what a living process has registered meanwhile, and of which no withdrawal had come: it
/// asks the kernel, which knows nothing of what is on its way. On a machine nothing is. A runtime may also refuse by
/// what it has heard last, which may be a little old.
bool World::isDoubleClaim(const Belief& refused) const
{
    const auto self = std::find_if(m_claims.begin(), m_claims.end(),
                                   [&refused](const Claim& each) { return each.belief.get() == &refused; });
    const comm::TimeNs oldest = refused.failed.time - NEWS_TIME - m_timeStopped;
    return std::any_of(m_claims.begin(), m_claims.end(), [&](const Claim& other) {
        const Belief& belief = *other.belief;
        if (&other == &*self || other.path != self->path || belief.begun.number > refused.failed.number) {
            return false;
        }
        const bool isRecent = belief.ended.number == 0 || belief.ended.time >= oldest;
        const bool overlaps = belief.ended.number == 0 || belief.ended.number > refused.begun.number ||
                              belief.ended.time + m_network->longestDelay() >= refused.begun.time;
        if (other.group == self->group) {
            return !refused.accepted && overlaps;
        }
        return isRecent && (!refused.accepted || overlaps);
    });
}

// ---- what is left -------------------------------------------------------------------------------------------------

/// Whatever was open when a runtime went has been destroyed by now, and every request has ended.
void World::checkEnds(Process& process)
{
    for (auto& service : process.services) {
        service->dropAll();
    }
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    const auto check = [this](const Belief& belief) {
        if (!belief.destroyed && !belief.processDead) {
            m_verdict->fail("every handler is destroyed by shutdown", belief.name);
        }
    };
    for (const auto& subscription : process.subscriptions) {
        check(*subscription.belief);
    }
    for (const auto& registration : process.registrations) {
        check(*registration.belief);
    }
    if (process.list) {
        check(*process.list);
    }
    for (const auto& belief : process.answers) {
        check(*belief);
        if (!belief->terminal && !belief->processDead) {
            m_verdict->fail("every request ends", belief->name);
        }
    }
}

/// Whoever has disposed everything holds nothing any more: no entry, no proxy, no locator, no connection, save what
/// leads to the registry.
void World::disposeAll()
{
    for (auto& process : m_processes) {
        if (process->actor) {
            process->actor->disposeAll();
        }
        for (auto& subscription : process->subscriptions) {
            dispose(subscription);
        }
        for (auto& registration : process->registrations) {
            registration.disposable.dispose();
        }
    }
    auto lock = runUntil(30 * comm::SECOND, [this] { return isTakenBack(); });
    std::size_t connections = 0;
    for (const auto& process : m_processes) {
        if (!process->runtime) {
            continue;
        }
        const auto left = [&](const std::string& what) {
            m_verdict->fail("nothing is left when all is disposed", process->name + ": " + what);
        };
        const bool isClient = hasRegistry() && !process->isRegistry;
        connections += isClient ? 1 : 0;
        if (process->books->clients.size() != (isClient ? 1 : 0)) {
            left(std::to_string(process->books->clients.size()) + " client objects");
        }
        if (process->books->provided.size() != (process->isRegistry ? 1 : 0)) {
            left(std::to_string(process->books->provided.size()) + " locators");
        }
    }
    for (const std::string& difference : differences()) {
        m_verdict->fail("nothing is left when all is disposed", difference);
    }
    lock.unlock();
    for (const auto& process : m_processes) {
        if (m_scheduler && hasRegistry() && asksTheRegistry(process->name)) { // threads may not have read the ends
            m_verdict->fail("nothing is left when all is disposed", process->name + ": requests at the registry");
        }
    }
    if (m_scheduler && m_network->openStreams() > 2 * connections) {
        m_verdict->fail("nothing is left when all is disposed", "connections");
    }
}

/// Whether the registry has a request of the process's that has not ended.
bool World::asksTheRegistry(const std::string& process)
{
    bool isKnown = false;
    registry().host->registry().explain(std::make_unique<responsehandlers::FuncResponseHandler<GenericObject>>(
                                            [&isKnown](const GenericObject& answer) {
                                                isKnown = answer["for"]["known"] == true;
                                                return false;
                                            },
                                            [](const Response&) {}, [] {}),
                                        Path(REGISTRY_PATH), process);
    return isKnown;
}

bool World::isTakenBack()
{
    return differences().empty() && std::all_of(m_processes.begin(), m_processes.end(), [this](const auto& process) {
               return !process->runtime ||
                      (process->books->clients.size() <= (hasRegistry() && !process->isRegistry ? 1U : 0U) &&
                       process->books->provided.size() <= (process->isRegistry ? 1U : 0U));
           });
}

} // namespace kesa::sim
