// Who asks: a request enters and leaves its asker, and his accounts, here and nowhere else.

#include "service/RegistryImpl.h"
#include "service/limits.h"

#include <kesa/RequestContext.h>

#include <utility>

namespace kesa::registry {

namespace {

Owner ownerOf(const RequestContext& context)
{
    Owner owner;
    // Nil means this process, which no peer is, whatever it says.
    owner.instance = context.instance.isNil() ? obr::UUID::generate() : context.instance;
    owner.uid = context.uid;
    if (context.pid > 0) { // 0: of another namespace
        owner.pid = context.pid;
        owner.start = context.start;
    }
    return owner;
}

} // namespace

std::string Registry::Impl::Asker::name() const
{
    return peer || !process.empty() ? process + " (process " + std::to_string(pid) + ")" : "this process";
}

std::shared_ptr<Registry::Impl::Asker> Registry::Impl::currentAsker()
{
    const RequestContext* const context = RequestContext::current();
    const AskerKey key = context == nullptr ? AskerKey() : AskerKey(context->peer.get(), context->instance.bytes());
    auto& asker = m_askers[key];
    if (!asker) {
        asker = std::make_shared<Asker>();
        asker->key = key;
        if (context != nullptr) {
            asker->owner = ownerOf(*context);
            asker->process = context->process;
            asker->pid = context->pid;
            asker->uid = context->uid;
            asker->gid = context->gid;
            asker->realm = std::make_shared<const std::string>(context->realm);
            asker->peer = context->peer;
        }
        if (asker->peer) {
            asker->payer = m_accounts.open(asker->owner, asker->process);
        }
        if (m_needsNames) {
            asker->proven = provenName(asker->peer.get(), asker->process);
        }
        admit(*asker);
    }
    return asker;
}

/// Puts a request into the table. Answers why it may not; then the handler stays the caller's. What this process asks
/// itself nobody counts.
std::string Registry::Impl::add(const std::shared_ptr<Asker>& asker, Handler& handler, const Charge& charge,
                                StreamId& stream)
{
    std::string problem = asker->peer ? m_accounts.charge(asker->payer, charge) : std::string();
    if (!problem.empty()) {
        dropIfIdle(*asker);
        return problem;
    }
    stream = ++m_lastStream;
    ++asker->requests;
    Request& request = m_requests.emplace(stream, Request{std::move(handler), asker, charge}).first->second;
    if (std::holds_alternative<RegistrationHandler>(request.handler)) {
        enlist(stream, request);
    }
    return {};
}

void Registry::Impl::enlist(StreamId stream, Request& registration)
{
    Asker& asker = *registration.asker;
    registration.stream = stream;
    registration.previous = std::exchange(asker.lastRegistration, &registration);
    (registration.previous == nullptr ? asker.firstRegistration : registration.previous->next) = &registration;
}

void Registry::Impl::delist(Request& registration)
{
    Asker& asker = *registration.asker;
    (registration.previous == nullptr ? asker.firstRegistration : registration.previous->next) = registration.next;
    (registration.next == nullptr ? asker.lastRegistration : registration.next->previous) = registration.previous;
}

/// Takes a request out of the table.
Registry::Impl::Request Registry::Impl::take(Requests::iterator request)
{
    if (std::holds_alternative<RegistrationHandler>(request->second.handler)) {
        delist(request->second);
    }
    Request taken = std::move(request->second);
    Asker& asker = *taken.asker;
    if (asker.peer) {
        m_accounts.takeBack(asker.payer, taken.charge);
    }
    --asker.requests;
    asker.listing.erase(request->first);
    m_requests.erase(request);
    dropIfIdle(asker);
    return taken;
}

/// It may be nobody's when that returns.
void Registry::Impl::dropIfIdle(Asker& asker)
{
    if (asker.requests > 0) {
        return;
    }
    if (asker.peer) {
        dropNews(asker);
        m_accounts.close(asker.payer);
    }
    m_askers.erase(AskerKey(asker.key));
}

} // namespace kesa::registry
