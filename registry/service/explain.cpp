// What the registry knows of a path, for those who ask why a service is not there, or why somebody does not see it. It
// is gathered when somebody asks. docs/protocol_registry.md has the members of the answer.

#include "service/RegistryImpl.h"
#include "service/limits.h"
#include "store/nearestService.h"

#include <kesa/Path.h>
#include <kesa/RequestContext.h>
#include <kesa/Response.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/mimetypes.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <kesa/serviceregistry/matchesQuery.h>

#include <unistd.h>

#include <algorithm>

namespace kesa::registry {

namespace {

using util::config::Value;

const char* nameOf(History::Event::What what) noexcept
{
    switch (what) {
    case History::Event::What::eWITHDRAWN:
        return "withdrawn";
    case History::Event::What::eLOST:
        return "lost";
    case History::Event::What::eFORBIDDEN:
        return "forbidden";
    default:
        return "refused";
    }
}

void describe(const Who& who, GenericObject& object)
{
    object.set("provider", who.process);
    if (who.pid >= 0) {
        object.set("pid", who.pid);
    }
    if (who.uid >= 0) {
        object.set("uid", who.uid);
    }
}

/// As it is on the wire. A record was measured when it came, so it has that form.
Value describe(const ServiceDef& record)
{
    const auto payload = serializer::toPayload(record, mimetypes::JSON);
    const auto value = payload ? serializer::fromPayload<Value>(*payload, "ServiceDef") : nullopt;
    return value.value_or(Value());
}

/// Why a query whose pattern matches is not told of a record.
const char* whyNot(const QueryWatch& watch, const Record& record)
{
    Query withoutMetadata = watch.selection.query;
    withoutMetadata.metadata.reset();
    return serviceregistry::matchesQuery(record.serviceDef, withoutMetadata, watch.selection.patterns) ? "metadata"
                                                                                                       : "scope";
}

/// The first one of the query that keeps the record from it; empty when that is not for metadata.
std::string missingKey(const QueryWatch& watch, const Record& record)
{
    Query one = watch.selection.query;
    for (const auto& [key, value] : watch.selection.query.metadata.value_or(GenericObject())) {
        one.metadata = GenericObject{{key, value}};
        if (!serviceregistry::matchesQuery(record.serviceDef, one, watch.selection.patterns)) {
            return key;
        }
    }
    return {};
}

} // namespace

void Registry::Impl::explain(IResponseHandler<GenericObject>& handler, const std::string& path,
                             const std::string& process)
{
    if (path.size() > Path::MAX_SERVICE_PATH_SIZE) {
        handler.onError(Response::createErrorResponse(400, Path::complaintAboutService(path)));
        return;
    }
    GenericObject answer{{"path", path}, {"registryStarted", m_started}};
    {
        const std::lock_guard lock(m_mutex);
        const RequestContext* const context = RequestContext::current();
        const PermitPtr permit = permitOf(context);
        const Store::Held* const found = m_store.find(path);
        const Store::Held* const held = found != nullptr && sees(permit, *found->record) ? found : nullptr;
        answer.set("registered", held != nullptr);
        if (held != nullptr) {
            answer.set("holder", describeHolder(*held));
            if (context != nullptr &&
                !isVisible(held->record->serviceDef, std::make_shared<const std::string>(context->realm))) {
                answer.set("hiddenBy", "realm");
            }
        } else if (found != nullptr && (!permit || permit->mayRegister(path))) {
            answer.set("taken", true); // as he would hear who wants to register it
        } else if (const std::string nearest = nearestService(m_store, path, MAX_NEAREST_LOOKS, permit);
                   !nearest.empty()) {
            answer.set("nearest", nearest);
        }
        answer.set("history", describeHistory(path, permit));
        if (path == serviceregistry::ServiceRegistryPex::SERVICE_PATH) {
            answer.set("policy", describePolicy(context));
        }
        if (!process.empty()) {
            answer.set("for", describeProcess(path, process, held));
        }
    }
    if (!handler.onNext(answer)) {
        handler.onCompleted();
    }
}

/// The own process says nothing of itself but its name in the record; that of the registry has it in its locator only.
Who Registry::Impl::whoOf(const Asker& asker, const Record& record)
{
    if (asker.peer || !asker.process.empty()) {
        return {asker.process, asker.pid, asker.uid};
    }
    const auto& metainfo = record.serviceDef.metainfo;
    const auto& locators = record.serviceDef.locators;
    std::string_view process = metainfo ? (*metainfo)["provider"].stringView() : "";
    if (process.empty() && !locators.empty()) {
        const std::string_view authority = locators.front().authority();
        process = authority.substr(0, authority.find('+'));
    }
    return {std::string(process), ::getpid(), ::geteuid()};
}

/// Such as "held by process player (pid 812)", for who may see it. Empty when nobody has it, or he has just gone.
std::string Registry::Impl::holderOf(const std::string& path, const PermitPtr& permit) const
{
    const Store::Held* const held = m_store.find(path);
    if (held == nullptr) {
        return {};
    }
    if (!sees(permit, *held->record)) {
        return "held by a process of another user, whose service this one may not see";
    }
    const auto request = m_requests.find(held->holder);
    if (request == m_requests.end()) {
        return {};
    }
    const Who who = whoOf(*request->second.asker, *held->record);
    return "held by process " + who.process + " (pid " + std::to_string(who.pid) + ")";
}

GenericObject Registry::Impl::describeHolder(const Store::Held& held) const
{
    GenericObject holder{{"record", describe(held.record->serviceDef)}};
    const auto request = m_requests.find(held.holder);
    if (request != m_requests.end()) {
        describe(whoOf(*request->second.asker, *held.record), holder);
        holder.set("since", request->second.since);
    }
    return holder;
}

Value Registry::Impl::describeHistory(const std::string& path, const PermitPtr& permit) const
{
    Value::Array events;
    for (const History::Event& event : m_history.of(path)) {
        if (permit && !permit->seesOf(event.who.uid, path)) {
            continue;
        }
        GenericObject object{{"what", nameOf(event.what)}, {"when", event.when}};
        describe(event.who, object);
        if (event.since != 0) {
            object.set("since", event.since);
        }
        if (!event.reason.empty()) {
            object.set("reason", event.reason);
        }
        events.emplace_back(std::move(object));
    }
    return events;
}

Value Registry::Impl::describeProcess(const std::string& path, const std::string& process, const Store::Held* held)
{
    const bool isKnown = std::any_of(m_askers.begin(), m_askers.end(),
                                     [&process](const auto& each) { return each.second->process == process; });
    std::vector<StreamId> streams;
    m_store.asking(path, streams);
    Value::Array asks;
    for (const StreamId stream : streams) {
        const auto request = m_requests.find(stream);
        if (request != m_requests.end() && request->second.asker->process == process &&
            asks.size() < MAX_EXPLAINED_ASKS) {
            asks.emplace_back(describeAsking(stream, request->second, held == nullptr ? nullptr : held->record.get()));
        }
    }
    GenericObject object{{"process", process}, {"known", isKnown}, {"asks", std::move(asks)}};
    if (const Value may = describeMay(path, process, held); may.isDefined()) {
        object.set("may", may);
    }
    return object;
}

GenericObject Registry::Impl::describeAsking(StreamId stream, const Request& request, const Record* record)
{
    const QueryWatch* const watch = m_store.findQuery(stream);
    GenericObject object{{"pid", request.asker->pid}, {"kind", watch == nullptr ? "tracking" : "query"}};
    if (watch != nullptr) {
        object.set("pattern", watch->selection.query.pattern);
    }
    if (record == nullptr) {
        return object;
    }
    const bool isReachable = isVisible(record->serviceDef, request.asker->realm);
    const bool isSeen = sees(request.asker->permit, *record);
    const bool isTold = isSeen && (watch == nullptr ? isReachable : watch->selection.wants(*record));
    object.set("told", isTold);
    if (!isTold) {
        const std::string_view because = !isReachable           ? "realm"
                                         : isSeen               ? whyNot(*watch, *record)
                                         : m_policy->hasRules() ? "policy"
                                                                : "private";
        object.set("because", because);
        if (because == "metadata") {
            object.set("key", missingKey(*watch, *record));
        }
    }
    return object;
}

} // namespace kesa::registry
