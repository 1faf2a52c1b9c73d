// What the programs in the processes do with their runtime.

#include "World.h"

namespace kesa::sim {

using serviceregistry::Query;

void World::registerService(Process& process, const Offer& offer)
{
    auto belief = std::make_shared<Belief>();
    belief->claim = std::to_string(++m_names);
    belief->name = process.name + " registration #" + belief->claim + " of " + offer.path;
    belief->colour = offer.colour;
    {
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        belief->begun = m_verdict->now();
    }
    GenericObject metainfo;
    metainfo.set(CLAIM, belief->claim);
    metainfo.set("colour", belief->colour);
    if (offer.fillerBytes > 0) {
        metainfo.set("filler", std::string(offer.fillerBytes, 'f'));
    }
    auto service = std::make_shared<Service>(*m_verdict, m_calls, belief, process.group, m_largestAnswer, m_names);
    process.services.push_back(service);
    m_claims.push_back({offer.path, process.group, belief});
    Disposable disposable = process.runtime->registerService(offer.path, service, offer.type, {"1.0.0"}, metainfo,
                                                             observer<ServiceDef>(belief));
    process.registrations.push_back({offer.path, disposable, belief});
}

void World::noteClaim(const std::string& path)
{
    auto belief = std::make_shared<Belief>();
    belief->name = belief->claim = "a stranger's claim of " + path;
    belief->begun = m_verdict->now();
    m_claims.push_back({path, *m_strangers.rbegin(), belief});
}

bool World::isInForce(const Registration& registration)
{
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    return registration.belief->isInForce();
}

std::string World::whyNotHeld(const Process& process, const Registration& registration)
{
    Process& registry = this->registry();
    if (!registry.isRunning()) {
        return "the registry does not run";
    }
    if (!m_network->isConnected(process.group, registry.group)) {
        return "the connection has ended";
    }
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    const Belief& list = *registry.list;
    const auto shown = list.present.find(registration.path);
    if (shown == list.present.end() || !shown->second) {
        return "nobody has it";
    }
    const std::string& claim = list.claims.at(registration.path);
    return claim == registration.belief->claim ? "" : "it is #" + claim + "'s";
}

void World::subscribe(Process& process, Stream kind, const std::string& target)
{
    add(process, {kind, target, Query(), Disposable(), std::make_shared<Belief>(), false});
}

void World::subscribe(Process& process, Stream kind, const Query& query)
{
    add(process, {kind, query.pattern, query, Disposable(), std::make_shared<Belief>(), false});
}

void World::add(Process& process, Subscription subscription)
{
    static constexpr const char* KINDS[] = {"tracking", "query", "resolving", "track and resolve",
                                            "track and resolve by query"};
    const std::shared_ptr<Belief>& belief = subscription.belief;
    belief->name = process.name + ' ' + KINDS[static_cast<int>(subscription.kind)] + " #" + std::to_string(++m_names) +
                   " of " + subscription.target;
    auto& runtime = *process.runtime;
    Disposable& disposable = subscription.disposable;
    switch (subscription.kind) {
    case Stream::eTRACK:
        disposable = runtime.trackService(subscription.target, observer<ResourceUpdate<ServiceDef>>(belief));
        break;
    case Stream::eQUERY:
        disposable = runtime.trackServices(subscription.query, observer<ResourceUpdate<ServiceDef>>(belief));
        break;
    case Stream::eRESOLVE:
        disposable = runtime.resolveService(url(subscription.target), observer<optional<Client>>(belief));
        break;
    case Stream::eTRACK_RESOLVE:
        disposable = runtime.trackAndResolveService(subscription.target,
                                                    observer<optional<runtime::v02::ResolveResult<Client>>>(belief));
        break;
    case Stream::eQUERY_RESOLVE:
        disposable = runtime.trackAndResolveServices(subscription.query,
                                                     observer<runtime::v02::ResolveResult<optional<Client>>>(belief));
        break;
    }
    process.subscriptions.push_back(std::move(subscription));
}

void World::dispose(Subscription& subscription)
{
    subscription.disposed = true;
    subscription.disposable.dispose();
}

} // namespace kesa::sim
