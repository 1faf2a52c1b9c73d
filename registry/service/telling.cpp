// What is written to those who ask: each change, as its asker's queue has room, and the first answers of queries.

#include "service/RegistryImpl.h"
#include "service/channel.h"
#include "service/limits.h"

#include <comm/Clock.h>
#include <kesa/Response.h>
#include <kesa/headers.h>
#include <obr/visible.h>

#include <fmt/format.h>

#include <deque>
#include <utility>

namespace kesa::registry {

/// Now, or after what waits for the asker already.
void Registry::Impl::toAsker(Effect effect, Updates& list)
{
    const auto request = m_requests.find(effect.stream);
    if (request == m_requests.end()) {
        return; // a handler has cancelled it meanwhile
    }
    if (effect.kind == Effect::Kind::eREGISTERED && request->second.since == 0) {
        request->second.since = wallClockMs();
    }
    const std::shared_ptr<Asker> asker = request->second.asker;
    if (asker->isCutOff) {
        return;
    }
    if (asker->isWaiting || !asker->news.empty()) {
        wait(*asker, std::move(effect));
        return;
    }
    tell(request, effect, list);
    if (asker->peer && asker->written >= WINDOW_BYTES) {
        waitForQueue(asker);
    }
}

/// A peer that does not take its news holds up nobody else. They cost a reference each, and keep records that nobody
/// else may have any more; one that is stopped would gather them for ever.
void Registry::Impl::wait(Asker& asker, Effect effect)
{
    const std::size_t bytes = NEWS_BYTES + effect.record->memory;
    asker.newsBytes += bytes;
    asker.news.push_back(std::move(effect));
    const bool isUserOver = m_accounts.keep(asker.payer, bytes);
    if (asker.news.size() >= MAX_WAITING_OF_THE_LIVING || asker.newsBytes > MAX_WAITING_BYTES) {
        cutOff(asker, "it takes its news more slowly than they come");
    } else if (isUserOver) {
        cutOffSlowest(asker);
    } else if (asker.news.size() >= MAX_WAITING && !asker.isProbed) {
        asker.isProbed = true; // not alive, it is disconnected
        asker.peer->proveAlive(WAITING_PROOF_TIME, [](bool) {});
    }
}

void Registry::Impl::cutOff(Asker& asker, const std::string& why)
{
    asker.isCutOff = true;
    dropNews(asker);
    asker.peer->disconnect(why.c_str());
}

/// Of its user's, the one for which most waits.
void Registry::Impl::cutOffSlowest(const Asker& of)
{
    Asker* slowest = nullptr;
    for (const auto& [key, asker] : m_askers) {
        if (asker->peer && asker->uid == of.uid && (slowest == nullptr || asker->newsBytes > slowest->newsBytes)) {
            slowest = asker.get();
        }
    }
    cutOff(*slowest, fmt::format("it takes its news more slowly than they come: {} bytes wait for it, and more than "
                                 "the {} that may for its user's processes together",
                                 slowest->newsBytes, MAX_USER_WAITING_BYTES));
}

Effect Registry::Impl::takeNews(Asker& asker)
{
    Effect effect = std::move(asker.news.front());
    asker.news.pop_front();
    const std::size_t bytes = NEWS_BYTES + effect.record->memory;
    asker.newsBytes -= bytes;
    m_accounts.letGo(asker.payer, bytes);
    return effect;
}

void Registry::Impl::dropNews(Asker& asker)
{
    m_accounts.letGo(asker.payer, std::exchange(asker.newsBytes, 0));
    std::deque<Effect>().swap(asker.news);
}

/// `list` holds the last update that was told: the same one goes to many.
void Registry::Impl::tell(Requests::iterator request, const Effect& effect, Updates& list)
{
    if (effect.kind == Effect::Kind::eREFUSED) {
        refused(request, effect);
        return;
    }
    request->second.asker->written += effect.record->bytes + LIST_FRAME_BYTES;
    if (auto* const registration = std::get_if<RegistrationHandler>(&request->second.handler)) {
        if (effect.isTakenOver) {
            KESA_TRACE(CHANNEL, 2, "[registerService] registered again by %s: '%s'",
                       request->second.asker->name().c_str(), effect.record->path().c_str());
        }
        (*registration)->onNext(effect.record->serviceDef);
        return;
    }
    if (list.size() != 1 || list[0].element.get() != &effect.record->serviceDef || list[0].updateType != effect.type) {
        list.assign(1, makeUpdate(effect.type, effect.record));
    }
    if (auto* const query = std::get_if<QueryHandler>(&request->second.handler)) {
        (*query)->onNext(list);
    } else {
        (*std::get_if<TrackingHandler>(&request->second.handler))->onNext(list[0]);
    }
}

/// What has waited, as far as the queue has room. Neighbouring changes for one query share a list.
void Registry::Impl::tellNews(const std::shared_ptr<Asker>& asker)
{
    Updates list;
    while (!asker->isWaiting && !asker->news.empty()) {
        const Effect effect = takeNews(*asker);
        const auto request = m_requests.find(effect.stream);
        if (request == m_requests.end()) {
            continue;
        }
        if (auto* const query = std::get_if<QueryHandler>(&request->second.handler)) {
            std::size_t bytes = LIST_FRAME_BYTES + effect.record->bytes + UPDATE_BYTES;
            list.assign(1, makeUpdate(effect.type, effect.record));
            while (!asker->news.empty() && asker->news.front().stream == effect.stream &&
                   bytes + asker->news.front().record->bytes + UPDATE_BYTES < LIST_BYTES) {
                const Effect next = takeNews(*asker);
                bytes += next.record->bytes + UPDATE_BYTES;
                list.push_back(makeUpdate(next.type, next.record));
            }
            asker->written += bytes;
            (*query)->onNext(list);
        } else {
            tell(request, effect, list);
        }
        if (asker->written >= WINDOW_BYTES) {
            waitForQueue(asker);
        }
    }
}

void Registry::Impl::refused(Requests::iterator request, const Effect& effect)
{
    m_dead.push_back(take(request));
    const Asker& asker = *m_dead.back().asker;
    if (const auto end = m_refusalLines.pass(asker.pid, comm::now())) {
        KESA_TRACE(CHANNEL, 3, "[registerService] '%s' of %s is refused: another living process has it%s",
                   obr::glimpse(effect.record->path()).c_str(), obr::glimpse(asker.name()).c_str(), end->c_str());
    }
    const std::string reason = holderOf(effect.record->path(), asker.permit);
    m_history.add(effect.record->path(), {History::Event::What::eREFUSED, 0, wallClockMs(),
                                          whoOf(*m_dead.back().asker, *effect.record), reason});
    Response error = Response::createErrorResponse(409, "service already registered");
    headers::appendReason(error, reason);
    std::get<RegistrationHandler>(m_dead.back().handler)->onError(error);
}

/// Writes the next list of the asker's first answers, if its queue has room.
void Registry::Impl::listOn(const std::shared_ptr<Asker>& asker)
{
    if (asker->listing.empty() || asker->isWaiting || !asker->news.empty()) {
        return;
    }
    if (asker->peer && asker->written >= WINDOW_BYTES) {
        waitForQueue(asker);
        return;
    }
    const StreamId stream = *asker->listing.begin();
    std::vector<RecordPtr> records;
    std::size_t bytes = 0;
    const bool hasMore = m_store.list(stream, LIST_BYTES - LIST_FRAME_BYTES, records, bytes);
    asker->written += bytes + LIST_FRAME_BYTES;
    if (!hasMore) {
        asker->listing.erase(stream);
    }
    m_ready.push_back(asker);
    std::vector<RegistryUpdate> updates;
    updates.reserve(records.size());
    for (const RecordPtr& record : records) {
        updates.push_back(makeUpdate(UpdateType::ADDED, record));
    }
    const auto tell = [&] {
        const auto request = m_requests.find(stream);
        if (request != m_requests.end()) {
            std::get<QueryHandler>(request->second.handler)->onNext(updates);
        }
    };
    if (!updates.empty()) {
        tell();
    }
    if (!hasMore) {
        updates.clear();
        tell();
    }
}

void Registry::Impl::waitForQueue(const std::shared_ptr<Asker>& asker)
{
    KESA_TRACE(CHANNEL, 2, "[deliver] waits for the queue of %s", asker->name().c_str());
    asker->isWaiting = true;
    asker->peer->whenDrained([weak = weak_from_this(), waiting = std::weak_ptr<Asker>(asker)] {
        const auto self = weak.lock();
        const auto ready = waiting.lock();
        if (self && ready) {
            self->turn([&] {
                ready->isWaiting = false;
                ready->isProbed = false;
                ready->written = 0;
                self->m_ready.push_back(ready);
            });
        }
    });
}

} // namespace kesa::registry
