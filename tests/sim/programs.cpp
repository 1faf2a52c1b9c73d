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
    auto service = std::make_shared<Service>(*m_verdict, belief, m_names);
    process.services.push_back(service);
    m_claims.push_back({offer.path, process.group, belief});
    Disposable disposable =
        process.runtime->registerService(offer.path, service, offer.type, {"1.0.0"}, metainfo,
                                         std::make_unique<RegistrationObserver>(*m_verdict, belief));
    process.registrations.push_back({offer.path, disposable, belief});
}

bool World::isInForce(const Registration& registration)
{
    const std::lock_guard<std::mutex> lock(m_verdict->mutex);
    return registration.belief->isInForce();
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
    const std::shared_ptr<Belief>& belief = subscription.belief;
    auto& runtime = *process.runtime;
    const auto named = [&](const char* kind) {
        belief->name = process.name + " " + kind + " #" + std::to_string(++m_names) + " of " + subscription.target;
    };
    switch (subscription.kind) {
    case Stream::eTRACK:
        named("tracking");
        subscription.disposable =
            runtime.trackService(subscription.target, std::make_unique<TrackingObserver>(*m_verdict, belief));
        break;
    case Stream::eQUERY:
        named("query");
        subscription.disposable =
            runtime.trackServices(subscription.query, std::make_unique<TrackingObserver>(*m_verdict, belief));
        break;
    case Stream::eRESOLVE:
        named("resolving");
        subscription.disposable =
            runtime.resolveService(url(subscription.target), std::make_unique<ResolvingObserver>(*m_verdict, belief));
        break;
    case Stream::eTRACK_RESOLVE:
        named("track and resolve");
        subscription.disposable = runtime.trackAndResolveService(
            subscription.target, std::make_unique<TrackAndResolveObserver>(*m_verdict, belief));
        break;
    case Stream::eQUERY_RESOLVE:
        named("track and resolve by query");
        subscription.disposable = runtime.trackAndResolveServices(
            subscription.query, std::make_unique<TrackAndResolveQueryObserver>(*m_verdict, belief));
        break;
    }
    process.subscriptions.push_back(std::move(subscription));
}

void World::dispose(Subscription& subscription)
{
    subscription.disposed = true;
    subscription.disposable.dispose();
}

/// One that the subscription has; not the registry's.
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

bool World::call(Process& process, const Subscription& subscription, bool isCancelled)
{
    const Client client = clientOf(subscription);
    if (!client) {
        return false;
    }
    auto belief = std::make_shared<Belief>();
    belief->name = process.name + " request #" + std::to_string(++m_names);
    process.answers.push_back(belief);
    std::unique_ptr<IResponseHandler<Response>> handler = std::make_unique<AnswerObserver>(*m_verdict, belief);
    void* const handle = client->request(Request("retrieve", "/"), std::move(handler));
    if (handle != IKesaApi::UNDEFINED_REQUEST_HANDLE && isCancelled) {
        client->cancel(handle);
        const std::lock_guard<std::mutex> lock(m_verdict->mutex);
        if (m_scheduler && !belief->destroyed) {
            m_verdict->fail("a cancelled request's handler is destroyed", belief->name);
        }
        belief->terminal = true;
    }
    return true;
}

/// Which service answers?
std::shared_ptr<Belief> World::ask(Process& process, const Client& client, const std::string& path)
{
    auto belief = std::make_shared<Belief>();
    belief->name = process.name + " question #" + std::to_string(++m_names) + " to " + path;
    process.answers.push_back(belief);
    std::unique_ptr<IResponseHandler<Response>> handler = std::make_unique<AnswerObserver>(*m_verdict, belief);
    client->request(Request("retrieve", Service::WHO), std::move(handler));
    return belief;
}

} // namespace kesa::sim
