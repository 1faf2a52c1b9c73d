// How a registration ends other than by its client's word: with its peer, or because its holder lives no more when
// somebody else claims the path. That is asked only then.

#include "service/RegistryImpl.h"
#include "service/channel.h"
#include "service/limits.h"

namespace kesa::registry {

void Registry::Impl::askHolder(const Effect& effect)
{
    const auto request = m_requests.find(effect.stream);
    if (request == m_requests.end()) {
        return; // it has ended, and the claim was accepted
    }
    const std::shared_ptr<Asker>& asker = request->second.asker;
    const std::string& path = effect.record->path();
    if (!asker->peer && !effect.isPatient) {
        m_store.proved(path, effect.proof, true);
        return;
    }
    KESA_TRACE(CHANNEL, 2, "[claim] '%s' is claimed; does its holder %s live?", path.c_str(), asker->name().c_str());
    auto answer = [weak = weak_from_this(), holder = std::weak_ptr<Asker>(asker), record = effect.record,
                   proof = effect.proof](bool isAlive) {
        if (const auto self = weak.lock()) {
            self->proved(record->path(), proof, isAlive, holder);
        }
    };
    if (asker->peer) {
        asker->peer->isProcessAlive(PROOF_TIME, std::move(answer));
    } else {
        m_proveMirrored(path, std::move(answer));
    }
}

void Registry::Impl::proved(const std::string& path, std::uint64_t proof, bool isAlive,
                            const std::weak_ptr<Asker>& asker)
{
    turn([&] {
        const auto holder = asker.lock();
        if (!isAlive && holder) {
            KESA_TRACE(CHANNEL, 3, "[claim] '%s': its holder %s does not live", path.c_str(), holder->name().c_str());
            dropRegistrations(*holder);
        }
        m_store.proved(path, proof, isAlive);
    });
}

/// Those of a peer that does not live; its requests stay until they are cancelled.
void Registry::Impl::dropRegistrations(const Asker& asker)
{
    for (const Request* registration = asker.firstRegistration; registration != nullptr;
         registration = registration->next) {
        if (const RecordPtr gone = m_store.end(registration->stream)) {
            noteEnd(*registration, *gone, History::Event::What::eLOST, "its process does not live");
        }
    }
}

void Registry::Impl::keepsWaiting(const Effect& effect)
{
    const auto holder = m_requests.find(effect.stream);
    KESA_TRACE(CHANNEL, 4,
               "[mirror] '%s' of this process is hidden: %s has registered it, too; it is shown when that one goes",
               effect.record->path().c_str(),
               holder == m_requests.end() ? "another process" : holder->second.asker->name().c_str());
}

void Registry::Impl::noteEnd(const Request& registration, const Record& record, History::Event::What what,
                             std::string reason)
{
    m_history.add(record.path(),
                  {what, registration.since, wallClockMs(), whoOf(*registration.asker, record), std::move(reason)});
}

} // namespace kesa::registry
