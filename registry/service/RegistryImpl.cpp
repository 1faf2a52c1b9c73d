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

#include "service/channel.h"
#include "service/limits.h"

#include <comm/wallClock.h>
#include <kesa/IKesaApi.h>
#include <kesa/Path.h>
#include <kesa/RequestContext.h>
#include <kesa/Response.h>
#include <kesa/headers.h>
#include <obr/ErrorStorage.h>

#include <algorithm>
#include <cstdint>

namespace kesa::registry {

namespace {

constexpr std::array<std::size_t, 3> MAX_REQUESTS = {MAX_REGISTRATIONS, MAX_TRACKINGS, MAX_QUERIES};
constexpr std::array<const char*, 3> KINDS = {"registrations", "trackings", "queries"};

std::int64_t wallClockMs() noexcept
{
    return comm::wallClock() / comm::MILLISECOND;
}

void* toHandle(StreamId stream) noexcept
{
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(stream));
}

StreamId toStream(void* handle) noexcept
{
    return static_cast<StreamId>(reinterpret_cast<std::uintptr_t>(handle));
}

/// What was wrong, from the error storage.
std::string takeReason()
{
    std::string reason = obr::ErrorStorage::reason();
    obr::ErrorStorage::ack();
    return reason;
}

std::string tooLarge(const char* what, std::size_t bytes, std::size_t limit)
{
    return std::string(what) + " takes " + std::to_string(bytes) + " bytes, the limit is " + std::to_string(limit);
}

/// The handler stays the caller's.
template <class T>
void* refuse(IResponseHandler<T>& handler, const char* operation, const std::string& subject, const std::string& text)
{
    KESA_TRACE(CHANNEL, 3, "[%s] '%s' is refused: %s", operation, subject.c_str(), text.c_str());
    handler.onError(Response::createErrorResponse(400, text));
    return IKesaApi::UNDEFINED_REQUEST_HANDLE;
}

} // namespace

Registry::Impl::Impl() : m_started(wallClockMs()) {}

std::string Registry::Impl::Asker::name() const
{
    return peer || !process.empty() ? process + " (process " + std::to_string(pid) + ")" : "this process";
}

// ---- turns --------------------------------------------------------------------------------------------------------

template <class Command>
void Registry::Impl::turn(const Command& command)
{
    std::vector<Request> dead; // destroyed with the mutex free
    const std::lock_guard lock(m_mutex);
    command();
    if (!m_isWorking) {
        m_isWorking = true;
        work();
        m_isWorking = false;
        dead.swap(m_dead);
    }
}

void Registry::Impl::work()
{
    deliver();
    while (!m_ready.empty()) {
        const auto asker = std::move(m_ready.back());
        m_ready.pop_back();
        tellNews(asker);
        listOn(asker);
        deliver();
    }
}

/// Makes a request of the handler and runs `command(stream, asker)`, unless the asker has as many as it may.
template <class T, class Command>
void* Registry::Impl::open(std::unique_ptr<IResponseHandler<T>>&& handler, const char* operation,
                           const std::string& subject, const Command& command)
{
    const RequestContext* const context = RequestContext::current();
    if (context != nullptr && context->stream != nullptr) {
        // Who watches must never miss a change.
        context->stream->setQueuePolicy(QueuePolicy::eCUT_CONNECTION);
    }
    constexpr std::size_t KIND = std::is_same_v<T, ServiceDef> ? 0 : std::is_same_v<T, RegistryUpdate> ? 1 : 2;
    bool isTooMany = false;
    StreamId stream = 0;
    turn([&] {
        const std::shared_ptr<Asker> asker = currentAsker();
        if (asker->peer && asker->requests[KIND] >= MAX_REQUESTS[KIND]) {
            isTooMany = true;
            return;
        }
        ++asker->requests[KIND];
        stream = ++m_lastStream;
        m_requests.emplace(stream, Request{Handler(std::move(handler)), asker});
        command(stream, asker);
    });
    if (isTooMany) {
        return refuse(*handler, operation, subject,
                      "a connection can not have more than " + std::to_string(MAX_REQUESTS[KIND]) + ' ' + KINDS[KIND]);
    }
    return toHandle(stream);
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
            // Nil means this process, which no peer is, whatever it says.
            asker->instance = context->instance.isNil() ? obr::UUID::generate() : context->instance;
            asker->process = context->process;
            asker->pid = context->pid;
            asker->uid = context->uid;
            asker->realm = std::make_shared<const std::string>(context->realm);
            asker->peer = context->peer;
        }
    }
    return asker;
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

// ---- requests -----------------------------------------------------------------------------------------------------

void* Registry::Impl::registerService(RegistrationHandler&& handler, const std::string& path,
                                      const ServiceDef& serviceDef)
{
    if (!Path::isCanonical(path)) {
        return refuse(*handler, "registerService", path, "'" + path + "' is no canonical absolute path");
    }
    if (serviceDef.path.toString() != path) {
        return refuse(*handler, "registerService", path, "path of the record differs from the request path");
    }
    return claim(std::move(handler), serviceDef, false);
}

void Registry::Impl::setMirrorProof(MirrorProof&& prove)
{
    const std::lock_guard lock(m_mutex);
    m_proveMirrored = std::move(prove);
}

void* Registry::Impl::mirror(RegistrationHandler&& handler, const ServiceDef& serviceDef)
{
    return claim(std::move(handler), serviceDef, true);
}

void* Registry::Impl::claim(RegistrationHandler&& handler, const ServiceDef& serviceDef, bool isPatient)
{
    const std::string& path = serviceDef.path.toString();
    Claim claim;
    claim.record = std::make_shared<Record>(Record{serviceDef});
    claim.keepsId = serviceDef.id.has_value();
    claim.isPatient = isPatient;
    if (!claim.keepsId) {
        claim.record->serviceDef.id = obr::UUID::generate();
    }
    if (measure(claim.record->serviceDef, claim.record->bytes)) {
        return refuse(*handler, "registerService", path, takeReason());
    }
    if (claim.record->bytes > MAX_RECORD_BYTES) {
        return refuse(*handler, "registerService", path, tooLarge("the record", claim.record->bytes, MAX_RECORD_BYTES));
    }
    return open(std::move(handler), "registerService", path, [&](StreamId stream, const std::shared_ptr<Asker>& asker) {
        KESA_TRACE(CHANNEL, 2, "[registerService] '%s' by %s", path.c_str(), asker->name().c_str());
        claim.instance = asker->instance;
        m_store.registerService(stream, claim);
    });
}

void* Registry::Impl::trackService(TrackingHandler&& handler, const std::string& path)
{
    if (!Path::isCanonical(path)) {
        return refuse(*handler, "trackService", path, "'" + path + "' is no canonical absolute path");
    }
    return open(std::move(handler), "trackService", path, [&](StreamId stream, const std::shared_ptr<Asker>& asker) {
        KESA_TRACE(CHANNEL, 2, "[trackService] '%s' by %s", path.c_str(), asker->name().c_str());
        m_store.trackService(stream, path, asker->realm);
    });
}

void* Registry::Impl::queryRegistry(QueryHandler&& handler, const Query& query)
{
    const auto patterns = PathPatterns::createFromGlob(query.pattern);
    std::size_t bytes = 0;
    if (!patterns || measure(query, bytes)) {
        return refuse(*handler, "queryRegistry", query.pattern, takeReason());
    }
    if (bytes > MAX_QUERY_BYTES) {
        return refuse(*handler, "queryRegistry", query.pattern, tooLarge("the query", bytes, MAX_QUERY_BYTES));
    }
    return open(std::move(handler), "queryRegistry", query.pattern,
                [&](StreamId stream, const std::shared_ptr<Asker>& asker) {
                    KESA_TRACE(CHANNEL, 2, "[queryRegistry] '%s' by %s", query.pattern.c_str(), asker->name().c_str());
                    m_store.queryRegistry(stream, query, *patterns, asker->realm);
                    asker->listing.push_back(stream);
                    m_ready.push_back(asker);
                });
}

void Registry::Impl::cancelRequest(void* handle)
{
    turn([&] {
        const StreamId stream = toStream(handle);
        const auto request = m_requests.find(stream);
        if (request != m_requests.end()) {
            m_dead.push_back(take(request));
            if (const RecordPtr gone = m_store.end(stream)) {
                const auto& peer = m_dead.back().asker->peer;
                noteEnd(m_dead.back(), *gone, peer ? peer->endReason() : std::string());
            }
        }
    });
}

void Registry::Impl::close()
{
    Requests requests; // destroyed with the mutex free
    turn([&] {
        m_askers.clear();
        requests.swap(m_requests);
    });
}

// ---- what is told -------------------------------------------------------------------------------------------------

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

/// Without a reason it was withdrawn.
void Registry::Impl::noteEnd(const Request& registration, const Record& record, std::string reason)
{
    const auto what = reason.empty() ? History::Event::What::eWITHDRAWN : History::Event::What::eLOST;
    m_history.add(record.path(),
                  {what, registration.since, wallClockMs(), whoOf(*registration.asker, record), std::move(reason)});
}

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
    if (asker->isWaiting || !asker->news.empty()) {
        wait(*asker, std::move(effect));
        return;
    }
    tell(request, effect, list);
    if (asker->peer && asker->written >= WINDOW_BYTES) {
        waitForQueue(asker);
    }
}

/// A peer that does not take its news holds up nobody else. They cost a reference each; one that is stopped would
/// gather them for ever.
void Registry::Impl::wait(Asker& asker, Effect effect)
{
    asker.news.push_back(std::move(effect));
    if (asker.news.size() == MAX_WAITING_OF_THE_LIVING) {
        asker.peer->disconnect("it takes its news more slowly than they come");
    } else if (asker.news.size() >= MAX_WAITING && !asker.isProbed) {
        asker.isProbed = true; // not alive, it is disconnected
        asker.peer->proveAlive(WAITING_PROOF_TIME, [](bool) {});
    }
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
        const Effect effect = std::move(asker->news.front());
        asker->news.pop_front();
        const auto request = m_requests.find(effect.stream);
        if (request == m_requests.end()) {
            continue;
        }
        if (auto* const query = std::get_if<QueryHandler>(&request->second.handler)) {
            std::size_t bytes = LIST_FRAME_BYTES + effect.record->bytes + UPDATE_BYTES;
            list.assign(1, makeUpdate(effect.type, effect.record));
            while (!asker->news.empty() && asker->news.front().stream == effect.stream &&
                   bytes + asker->news.front().record->bytes + UPDATE_BYTES < LIST_BYTES) {
                bytes += asker->news.front().record->bytes + UPDATE_BYTES;
                list.push_back(makeUpdate(asker->news.front().type, asker->news.front().record));
                asker->news.pop_front();
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
    KESA_TRACE(CHANNEL, 3, "[registerService] '%s' of %s is refused: another living process has it",
               effect.record->path().c_str(), m_dead.back().asker->name().c_str());
    const std::string reason = holderOf(effect.record->path());
    m_history.add(effect.record->path(), {History::Event::What::eREFUSED, 0, wallClockMs(),
                                          whoOf(*m_dead.back().asker, *effect.record), reason});
    Response error = Response::createErrorResponse(409, "service already registered");
    headers::appendReason(error, reason);
    std::get<RegistrationHandler>(m_dead.back().handler)->onError(error);
}

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
    KESA_TRACE(CHANNEL, 2, "[claim] '%s' is claimed; asking its holder %s", path.c_str(), asker->name().c_str());
    auto answer = [weak = weak_from_this(), holder = std::weak_ptr<Asker>(asker), record = effect.record,
                   proof = effect.proof](bool isAlive) {
        if (const auto self = weak.lock()) {
            self->proved(record->path(), proof, isAlive, holder);
        }
    };
    if (asker->peer) {
        asker->peer->proveAlive(PROOF_TIME, std::move(answer));
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
            KESA_TRACE(CHANNEL, 3, "[claim] '%s': its holder %s shows no sign of life", path.c_str(),
                       holder->name().c_str());
            dropRegistrations(*holder);
        }
        m_store.proved(path, proof, isAlive);
    });
}

/// Those of a peer that does not live; its requests stay until they are cancelled.
void Registry::Impl::dropRegistrations(const Asker& asker)
{
    std::vector<StreamId> streams;
    for (const auto& [stream, request] : m_requests) {
        if (request.asker.get() == &asker && std::holds_alternative<RegistrationHandler>(request.handler)) {
            streams.push_back(stream);
        }
    }
    std::sort(streams.begin(), streams.end());
    for (const StreamId stream : streams) {
        if (const RecordPtr gone = m_store.end(stream)) {
            noteEnd(m_requests.at(stream), *gone, "no sign of life");
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

// ---- first answers ------------------------------------------------------------------------------------------------

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
    const StreamId stream = asker->listing.front();
    std::vector<RecordPtr> records;
    std::size_t bytes = 0;
    const bool hasMore = m_store.list(stream, LIST_BYTES - LIST_FRAME_BYTES, records, bytes);
    asker->written += bytes + LIST_FRAME_BYTES;
    if (!hasMore) {
        asker->listing.pop_front();
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
