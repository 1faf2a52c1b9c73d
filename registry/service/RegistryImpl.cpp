// Every request and everything a peer answers is a turn: under one mutex a command changes the store, and what it
// brought about is written to the streams, in order, before the mutex is free. So all streams see the changes in one
// order, and nothing is said to a request whose cancel has returned. Writing only queues; nobody's code runs, save the
// handlers.
//
// A handler that calls the registry from inside its call does so in the same turn: its command is carried out at once,
// what that brings about is written after what was to be written before.
//
// To each connection no more is written than fits into a window, then its queue has to be empty once. What is to be
// told meanwhile waits, in order, as references to records: a slow watcher costs little, holds up nobody, and is not
// cut off for what others do. First answers of queries come after that, one list at a time; what changes meanwhile: see
// `QueryWatch`.

#include "service/RegistryImpl.h"

#include <comm/wallClock.h>

#include <unistd.h>

namespace kesa::registry {

Registry::Impl::Impl(const Accounts::Limits& limits)
    : m_ownUid(::geteuid()), m_accounts(limits, m_ownUid), m_policy(std::make_shared<Policy>(m_ownUid)),
      m_started(wallClockMs())
{}

std::int64_t Registry::Impl::wallClockMs() noexcept
{
    return comm::wallClock() / comm::MILLISECOND;
}

void Registry::Impl::work()
{
    const serviceregistry::WriteOnce::Use use(m_written);
    deliver();
    while (!m_ready.empty()) {
        const auto asker = std::move(m_ready.back());
        m_ready.pop_back();
        tellNews(asker);
        listOn(asker);
        deliver();
    }
}

void Registry::Impl::deliver()
{
    Updates list;
    for (Effect effect; m_store.next(effect);) {
        switch (effect.kind) {
        case Effect::Kind::eUPDATE:
        case Effect::Kind::eREGISTERED:
        case Effect::Kind::eREFUSED:
            toAsker(std::move(effect), list);
            break;
        case Effect::Kind::eASK_HOLDER:
            askHolder(effect);
            break;
        case Effect::Kind::eKEEPS_WAITING:
            keepsWaiting(effect);
            break;
        }
    }
}

void Registry::Impl::close()
{
    Requests requests; // destroyed with the mutex free
    turn([&] {
        m_askers.clear();
        requests.swap(m_requests);
    });
}

} // namespace kesa::registry
