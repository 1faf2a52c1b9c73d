// What a client asks: to register, to track, to query, and to end that. It is judged here, before its turn.

#include "service/RegistryImpl.h"
#include "service/channel.h"
#include "service/limits.h"
#include "store/footprint.h"

#include <kesa/IKesaApi.h>
#include <kesa/Path.h>
#include <kesa/RequestContext.h>
#include <kesa/Response.h>
#include <obr/ErrorStorage.h>
#include <obr/visible.h>

#include <type_traits>
#include <utility>

namespace kesa::registry {

namespace {

void* toHandle(StreamId stream) noexcept
{
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(stream));
}

StreamId toStream(void* handle) noexcept
{
    return static_cast<StreamId>(reinterpret_cast<std::uintptr_t>(handle));
}

std::string tooLarge(const char* what, std::size_t bytes, std::size_t limit)
{
    return std::string(what) + " takes " + std::to_string(bytes) + " bytes, the limit is " + std::to_string(limit);
}

/// What is too long in a record; empty when nothing is.
std::string longList(const ServiceDef& record)
{
    const std::pair<const char*, std::size_t> lists[] = {
        {"locators", record.locators.size()},
        {"versions", record.versions.size()},
        {"serializationFormats", record.serializationFormats ? record.serializationFormats->size() : 0},
        {"scope", record.scope ? record.scope->size() : 0}};
    for (const auto& [name, size] : lists) {
        if (size > MAX_LIST_ENTRIES) {
            return '"' + std::string(name) + "\" of the record has " + std::to_string(size) +
                   " entries, the limit is " + std::to_string(MAX_LIST_ENTRIES);
        }
    }
    return {};
}

Charge chargeFor(const Query& query, const PathPatterns& patterns)
{
    const RequestContext* const context = RequestContext::current();
    const Realm realm = context == nullptr ? nullptr : std::make_shared<const std::string>(context->realm);
    const Selection selection(query, patterns, realm);
    Charge charge;
    charge.selection = std::make_shared<const std::string>(Selection::key(query, realm));
    charge.selectionBytes = selection.memory() + 3 * charge.selection->size();
    charge.steps = selection.cost();
    return charge;
}

/// The handler stays the caller's.
template <class T>
void* refuse(IResponseHandler<T>& handler, const char* operation, const std::string& subject, const std::string& text,
             unsigned short status = 400)
{
    KESA_TRACE(CHANNEL, 3, "[%s] '%s' is refused: %s", operation, obr::glimpse(subject).c_str(), text.c_str());
    handler.onError(Response::createErrorResponse(status, text));
    return IKesaApi::UNDEFINED_REQUEST_HANDLE;
}

} // namespace

/// Makes a request of the handler and runs `command(stream, asker)`, unless the asker has as many as it may.
template <class T, class Command>
void* Registry::Impl::open(std::unique_ptr<IResponseHandler<T>>&& handler, const char* operation,
                           const std::string& subject, Charge charge, const Command& command)
{
    const RequestContext* const context = RequestContext::current();
    if (context != nullptr && context->stream != nullptr) {
        // Who watches must never miss a change.
        context->stream->setQueuePolicy(QueuePolicy::eCUT_CONNECTION);
    }
    Handler taken(std::move(handler));
    charge.kind = taken.index();
    charge.bytes += REQUEST_BYTES;
    std::string problem;
    StreamId stream = 0;
    turn([&] {
        const std::shared_ptr<Asker> asker = currentAsker();
        if constexpr (std::is_same_v<T, ServiceDef>) {
            if (const std::string why = whyMayNotRegister(*asker, subject); !why.empty()) {
                forbid(*asker, *std::get<RegistrationHandler>(taken), subject, why);
                dropIfIdle(*asker);
                return;
            }
        }
        problem = add(asker, taken, charge, stream);
        if (problem.empty()) {
            command(stream, asker);
        }
    });
    if (!problem.empty()) {
        return refuse(*std::get<std::unique_ptr<IResponseHandler<T>>>(taken), operation, subject, problem);
    }
    return stream == 0 ? IKesaApi::UNDEFINED_REQUEST_HANDLE : toHandle(stream);
}

void* Registry::Impl::registerService(RegistrationHandler&& handler, const std::string& path,
                                      const ServiceDef& serviceDef)
{
    if (const std::string complaint = Path::complaintAboutService(path); !complaint.empty()) {
        return refuse(*handler, "registerService", path, complaint);
    }
    if (serviceDef.path.toString() != path) {
        return refuse(*handler, "registerService", path, "path of the record differs from the request path");
    }
    if (const std::string list = longList(serviceDef); !list.empty()) {
        return refuse(*handler, "registerService", path, list);
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
    unsigned short status = 0;
    if (const std::string why = identify(claim.record->serviceDef, status); !why.empty()) {
        return refuse(*handler, "registerService", path, why, status);
    }
    claim.keepsId = serviceDef.id.has_value();
    claim.isPatient = isPatient;
    if (!claim.keepsId) {
        claim.record->serviceDef.id = obr::UUID::generate();
    }
    Payload json;
    if (write(claim.record->serviceDef, json, claim.record->bytes)) {
        return refuse(*handler, "registerService", path, obr::ErrorStorage::takeReason());
    }
    if (claim.record->bytes > MAX_RECORD_BYTES) {
        return refuse(*handler, "registerService", path, tooLarge("the record", claim.record->bytes, MAX_RECORD_BYTES));
    }
    claim.record->memory = footprint(claim.record->serviceDef);
    Charge charge;
    charge.bytes = claim.record->memory;
    return open(std::move(handler), "registerService", path, charge,
                [&](StreamId stream, const std::shared_ptr<Asker>& asker) {
                    KESA_TRACE(CHANNEL, 2, "[registerService] '%s' by %s", path.c_str(), asker->name().c_str());
                    claim.owner = asker->owner;
                    claim.record->uid = asker->isOwn() ? m_ownUid : asker->uid;
                    claim.record->number = ++m_lastRecord;
                    m_written.keep(claim.record->serviceDef, json);
                    m_store.registerService(stream, claim);
                });
}

void* Registry::Impl::trackService(TrackingHandler&& handler, const std::string& path)
{
    if (const std::string complaint = Path::complaintAboutService(path); !complaint.empty()) {
        return refuse(*handler, "trackService", path, complaint);
    }
    Charge charge;
    charge.bytes = 2 * path.size();
    return open(std::move(handler), "trackService", path, charge,
                [&](StreamId stream, const std::shared_ptr<Asker>& asker) {
                    KESA_TRACE(CHANNEL, 2, "[trackService] '%s' by %s", path.c_str(), asker->name().c_str());
                    m_store.trackService(stream, path, {asker->realm, asker->permit});
                });
}

void* Registry::Impl::queryRegistry(QueryHandler&& handler, const Query& query)
{
    if (query.pattern.size() > Path::MAX_SERVICE_PATH_SIZE) {
        return refuse(*handler, "queryRegistry", query.pattern,
                      tooLarge("the glob", query.pattern.size(), Path::MAX_SERVICE_PATH_SIZE));
    }
    const auto patterns = PathPatterns::createFromGlob(query.pattern);
    std::size_t bytes = 0;
    if (!patterns || measure(query, bytes)) {
        return refuse(*handler, "queryRegistry", query.pattern, obr::ErrorStorage::takeReason());
    }
    if (bytes > MAX_QUERY_BYTES) {
        return refuse(*handler, "queryRegistry", query.pattern, tooLarge("the query", bytes, MAX_QUERY_BYTES));
    }
    if (const std::size_t steps = patterns->cost(Path::MAX_SERVICE_PATH_SIZE); steps > MAX_GLOB_STEPS) {
        return refuse(*handler, "queryRegistry", query.pattern,
                      "the glob takes up to " + std::to_string(steps) + " steps of matching, the limit is " +
                          std::to_string(MAX_GLOB_STEPS) + ": ask for less by fewer wildcards and alternatives");
    }
    return open(std::move(handler), "queryRegistry", query.pattern, chargeFor(query, *patterns),
                [&](StreamId stream, const std::shared_ptr<Asker>& asker) {
                    KESA_TRACE(CHANNEL, 2, "[queryRegistry] '%s' by %s", query.pattern.c_str(), asker->name().c_str());
                    m_store.queryRegistry(stream, query, *patterns, {asker->realm, asker->permit});
                    asker->listing.insert(stream);
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
                std::string reason = peer ? peer->endReason() : std::string();
                const auto what = reason.empty() ? History::Event::What::eWITHDRAWN : History::Event::What::eLOST;
                noteEnd(m_dead.back(), *gone, what, std::move(reason));
            }
        }
    });
}

} // namespace kesa::registry
