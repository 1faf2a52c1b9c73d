// What the programs ask each other, and what has to be true of it once nothing moves any more.

#include "World.h"

#include <algorithm>
#include <cstdint>
#include <deque>

namespace kesa::sim {

Client World::clientOf(const Subscription& subscription)
{
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    const Belief& belief = *subscription.belief;
    if (belief.client && subscription.target.find(REGISTRY_PATH) == std::string::npos) {
        return belief.client;
    }
    for (const auto& [path, client] : belief.clients) {
        if (path != REGISTRY_PATH) {
            return client;
        }
    }
    return nullptr;
}

bool World::mayLeadToLiar(const Subscription& subscription)
{
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    const auto& claims = subscription.belief->claims; // which its records do not have
    return subscription.target.find("/liar") != std::string::npos ||
           std::any_of(claims.begin(), claims.end(),
                       [](const auto& claim) { return claim.second.empty() && claim.first != REGISTRY_PATH; });
}

Client World::clientTo(const Process& asker, const Process& provider)
{
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    for (const Subscription& subscription : asker.subscriptions) {
        const Client& client = subscription.belief->client;
        if (subscription.kind == Stream::eRESOLVE && client) {
            const url locator(subscription.target);
            if (locator.authority() == provider.name && registered(provider, std::string(locator.path()))) {
                return client;
            }
        }
    }
    return nullptr;
}

World::Issued World::issue(Process& process, const Client& client, const Wish& wish)
{
    const std::string number = std::to_string(++m_names);
    auto belief = std::make_shared<Belief>();
    belief->name = process.name + " request of " + wish.resource + " #" + number;
    const auto call = std::make_shared<Call>(*m_verdict, m_calls, wish, number, belief);
    process.answers.push_back(belief);
    const Request request = call->request();
    {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        m_calls.add(call);
        call->issued(process.group, m_scheduler != nullptr);
    }
    return {client, client->request(request, makeCaller(*m_verdict, call)), call};
}

void World::cancel(const Issued& issued)
{
    issued.client->cancel(issued.handle);
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    Belief& belief = *issued.call->belief();
    if (m_scheduler && !belief.destroyed) {
        m_verdict->fail("a cancelled request's handler is destroyed", belief.name);
    }
    belief.terminal = true;
}

void World::handleFeeds(std::uint64_t group, std::size_t most)
{
    std::deque<Receipt> handled; // without the mutex
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    for (const auto& [number, call] : m_calls.all()) {
        if (call->feed() && call->group() == group) {
            call->feed()->handle(most, handled);
        }
    }
}

void World::handleFeeds()
{
    std::deque<Receipt> handled; // without the mutex
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    for (const auto& [number, call] : m_calls.all()) {
        if (call->feed()) {
            call->feed()->handleAtOnce();
            call->feed()->handle(SIZE_MAX, handled);
        }
    }
}

/// What is answered at once has been answered, and services have heard of the end of what they have kept.
std::vector<std::string> World::callDifferences() const
{
    std::vector<std::string> found;
    for (const auto& [number, call] : m_calls.all()) {
        if (const std::string difference = call->difference(); !difference.empty()) {
            found.push_back(call->belief()->name + ": " + difference);
        }
    }
    for (const auto& process : m_processes) {
        for (const auto& service : process->services) {
            const auto open = m_scheduler ? service->overButOpen() : nullptr;
            if (open) {
                found.push_back(open->belief()->name + ": is over, and its service has not heard of it");
            }
            if (m_scheduler && service->drained().isForgotten()) {
                found.push_back(process->name + ": what waits for the queue neither runs nor goes");
            }
        }
    }
    return found;
}

} // namespace kesa::sim
