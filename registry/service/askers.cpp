// Who asks, and what each one has open: a request enters and leaves its asker's account here, and nowhere else.

#include "service/RegistryImpl.h"
#include "service/limits.h"

#include <kesa/RequestContext.h>

namespace kesa::registry {

namespace {

constexpr std::array<std::size_t, 3> MAX_REQUESTS = {MAX_REGISTRATIONS, MAX_TRACKINGS, MAX_QUERIES};
constexpr std::array<const char*, 3> KINDS = {"registrations", "trackings", "queries"};

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

/// Why it may not open one more of the kind; empty when it may.
std::string Registry::Impl::Asker::whyNoMore(std::size_t kind) const
{
    return !peer || requests[kind] < MAX_REQUESTS[kind]
               ? std::string()
               : "a connection can not have more than " + std::to_string(MAX_REQUESTS[kind]) + ' ' + KINDS[kind];
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
            asker->realm = std::make_shared<const std::string>(context->realm);
            asker->peer = context->peer;
        }
    }
    return asker;
}

/// Puts a request into the table.
StreamId Registry::Impl::add(const std::shared_ptr<Asker>& asker, Handler&& handler)
{
    ++asker->requests[handler.index()];
    m_requests.emplace(++m_lastStream, Request{std::move(handler), asker});
    return m_lastStream;
}

/// Takes a request out of the table.
Registry::Impl::Request Registry::Impl::take(Requests::iterator request)
{
    Request taken = std::move(request->second);
    Asker& asker = *taken.asker;
    --asker.requests[taken.handler.index()];
    std::erase(asker.listing, request->first);
    m_requests.erase(request);
    if (asker.requests == std::array<std::size_t, 3>{}) {
        m_askers.erase(AskerKey(asker.key));
    }
    return taken;
}

} // namespace kesa::registry
