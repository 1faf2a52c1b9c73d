#include "RegistryViewState.h"

#include "explainNoRegistry.h"
#include "output.h"
#include "peerText.h"
#include "registryFaults.h"
#include "waitAwake.h"

#include <kesa/commands.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/ease/handler.h>
#include <kesa/headers.h>
#include <kesa/mimetypes.h>
#include <kesa/responsesemantics.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <kesa/tracing.h>
#include <obr/ErrorStorage.h>
#include <store/footprint.h>

#include <fmt/format.h>

#include <utility>

namespace kesactl {

using kesa::serviceregistry::RegistryUpdate;
using kesa::serviceregistry::ServiceRegistryPex;
using Kind = RegistryView::Event::Kind;

namespace {

/// A persistent stream of the registry, which is written here since an answer that cannot be read is to be told.
template <class Body>
kesa::Request requestOf(const std::string& path, const Body& body)
{
    kesa::Request request(kesa::commands::RETRIEVE, path,
                          kesa::serializer::toPayload(body, kesa::mimetypes::JSON).value_or(kesa::Payload()));
    kesa::headers::appendTracingInfo(request, ServiceRegistryPex::SERVICE_PATH, kesa::tracing::getTraceClientId());
    kesa::headers::appendAuthInfo(request);
    kesa::headers::appendResponseSemantic(request, kesa::responsesemantics::PERSISTENT_STREAM);
    return request;
}

} // namespace

void RegistryView::State::connected(const std::shared_ptr<kesa::IKesaApi>& api)
{
    using kesa::Response;
    {
        const std::lock_guard lock(mutex);
        isConnected = true;
        unavailable.clear();
        services.clear();
        bytes = 0;
        settledAt = comm::now() + SETTLING; // should the registry not say when it began
        changed.notifyAll();
    }
    const auto self = shared_from_this();
    const auto fail = [self](const Response& error) { self->refused(error); };
    const auto end = [self] { self->failed("it ends its answer, which a registry goes on with"); };
    void* const first =
        api->request(requestOf(std::string(ServiceRegistryPex::SERVICE_PATH), util::config::Dictionary()),
                     kesa::handler<Response>([self](const Response& answer) { self->toldOfRegistry(answer); }, fail));
    void* const second =
        api->request(requestOf("/", kesa::serviceregistry::Query(glob)),
                     kesa::handler<Response>([self](const Response& answer) { self->told(answer); }, fail, end));
    std::unique_lock lock(mutex);
    client = api;
    tracking = first;
    query = second;
    const bool isOver = hasEnded;
    lock.unlock();
    if (isOver) {
        cancel();
    }
}

/// A time of another clock, as of another host, may be later than now, and tells nothing. Nor does what cannot be read:
/// of that the query tells.
void RegistryView::State::toldOfRegistry(const kesa::Response& answer)
{
    RegistryUpdate update;
    if (kesa::serializer::readPayload(answer.getPayload(), update) || !update.element) {
        obr::ErrorStorage::ack();
        return;
    }
    const std::lock_guard lock(mutex);
    std::uint64_t started = 0;
    if (update.element->metainfo && !(*update.element->metainfo)["started_ms"].get(started) &&
        started <= static_cast<std::uint64_t>(comm::now() / comm::MILLISECOND)) {
        settledAt = static_cast<comm::TimeNs>(started) * comm::MILLISECOND + SETTLING;
        changed.notifyAll();
    }
}

/// The requests may have been issued over the next connection already, before its predecessor's loss was told; so they
/// are cancelled, and no answer of them comes after the loss.
void RegistryView::State::lost()
{
    cancel();
    const std::lock_guard lock(mutex);
    if (isComplete) {
        fallBehind();
        push({Kind::eREGISTRY_LOST, {}});
        beforeLoss.merge(services);
        wasLost = true;
    }
    isConnected = false;
    isComplete = false;
    settledAt = comm::NEVER;
    changed.notifyAll();
}

void RegistryView::State::refused(const kesa::Response& error)
{
    if (const std::string fault = faultOf(error); !fault.empty()) {
        failed(fault);
        return;
    }
    const std::lock_guard lock(mutex);
    if (error.getStatus() == 503) { // mostly of the connection: then `lost` comes, too
        unavailable = saidBy(error);
        return;
    }
    failure = Failure{ExitCode::eFAILED, "the registry refuses: " + saidBy(error)};
    changed.notifyAll();
}

void RegistryView::State::failed(const std::string& fault)
{
    const Unreached why = explainFault(registry, fault);
    const std::lock_guard lock(mutex);
    failure = Failure{ExitCode::eNO_REGISTRY, fmt::format("no registry at {}: {}", registry.toString(), why.text), 0,
                      why.advice};
    changed.notifyAll();
}

void RegistryView::State::cancel()
{
    std::unique_lock lock(mutex);
    const auto api = std::exchange(client, nullptr);
    void* const first = std::exchange(tracking, nullptr);
    void* const second = std::exchange(query, nullptr);
    lock.unlock();
    if (api) {
        api->cancel(first);
        api->cancel(second);
    }
}

void RegistryView::State::told(const kesa::Response& answer)
{
    std::vector<RegistryUpdate> updates;
    if (const std::string fault = readUpdates(answer, updates); !fault.empty()) {
        failed(fault);
        return;
    }
    const std::lock_guard lock(mutex);
    if (failure) {
        return; // nobody looks any more, and it may go on without end
    }
    apply(std::move(updates));
    if (bytes > MOST_BYTES) {
        failure = Failure{ExitCode::eFAILED,
                          fmt::format("the registry at {} tells of more than is kept here: {} services so far, of {} "
                                      "MiB",
                                      registry.toString(), services.size(), bytes >> 20U),
                          0, "ask for fewer of them, with a glob such as '/media/**'"};
        services.clear();
        events.clear();
        behind.reset();
    }
    changed.notifyAll();
}

/// With the mutex held, as the next one.
void RegistryView::State::forget(const std::string& path)
{
    if (const auto known = services.find(path); known != services.end()) {
        bytes -= kesa::registry::footprint(known->second);
        services.erase(known);
    }
}

void RegistryView::State::apply(std::vector<RegistryUpdate>&& updates)
{
    for (RegistryUpdate& update : updates) {
        const std::string path = update.element->path.toString();
        const bool isRemoval = update.updateType == RegistryUpdate::UpdateTypeEnum::REMOVED;
        if (isComplete) {
            fallBehind();
        }
        forget(path);
        if (isRemoval) {
            if (isComplete) {
                push({Kind::eREMOVED, std::move(*update.element)});
            }
            continue;
        }
        const auto known = services.emplace(path, std::move(*update.element)).first;
        bytes += kesa::registry::footprint(known->second);
        if (isComplete) {
            announce(known->second);
        }
    }
    if (updates.empty() && !isComplete) {
        isComplete = true;
        completedAt = comm::now();
        if (wasLost) {
            push({Kind::eREGISTRY_FOUND, {}});
        }
        for (const auto& [path, service] : services) {
            announce(service);
        }
    }
}

bool RegistryView::State::await(std::unique_lock<std::mutex>& lock, comm::TimeNs& deadline,
                                const std::function<bool()>& predicate)
{
    bool isSo = false;
    do {
        const comm::TimeNs settling = settledAt; // when the predicate may become true without news
        const bool isFirst = settling > comm::now() && settling < deadline;
        comm::TimeNs until = isFirst ? settling : deadline;
        waitAwake(
            changed, lock, [&] { return failure || isInterrupted || predicate() || settledAt != settling; }, until);
        deadline = isFirst ? deadline : until;
        if (failure) {
            throw *failure;
        }
        if (isInterrupted) {
            ReaderWatch::fail();
        }
        isSo = predicate();
    } while (!isSo && comm::now() < deadline);
    return isSo;
}

/// After a loss, a service that comes back as it was is no news; only its record has a new number.
void RegistryView::State::announce(const ServiceDef& service)
{
    const auto before = beforeLoss.find(service.path.toString());
    if (before != beforeLoss.end()) {
        const ServiceDef old = std::move(before->second);
        beforeLoss.erase(before);
        ServiceDef renumbered = service;
        renumbered.id = old.id;
        if (renumbered == old) {
            return;
        }
        push({Kind::eREMOVED, old});
    }
    push({Kind::eADDED, service});
}

void RegistryView::State::push(Event event)
{
    if (behind) {
        ++leftOut;
    } else {
        events.push_back(std::move(event));
    }
}

/// Before a change is applied.
void RegistryView::State::fallBehind()
{
    constexpr std::size_t MOST_WAITING = 10'000;
    if (!behind && events.size() >= MOST_WAITING) {
        behind = services;
        behind->merge(Services(beforeLoss));
    }
}

/// When all that waited has been taken, and it is known what is there.
void RegistryView::State::catchUp()
{
    if (!behind || !events.empty() || !isSettled()) {
        return;
    }
    beforeLoss = std::move(*behind);
    behind.reset();
    events.push_back({Kind::eLEFT_OUT, {}, std::exchange(leftOut, 0)});
    for (const auto& [path, service] : services) {
        announce(service);
    }
    announceGone();
}

/// What has not come back in time.
void RegistryView::State::announceGone()
{
    if (isSettled()) {
        for (const auto& [path, service] : beforeLoss) {
            push({Kind::eREMOVED, service});
        }
        beforeLoss.clear();
    }
}

} // namespace kesactl
