#include "RegistryView.h"

#include "Failure.h"
#include "output.h"

#include <kesa/commadapter/whyUnreachable.h>
#include <kesa/ease/handler.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/ServiceRegistryPexClient.h>

#include <fmt/format.h>

#include <functional>
#include <utility>

namespace kesactl {

using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::RegistryUpdate;
using kesa::serviceregistry::ServiceRegistryPexClient;
using Kind = RegistryView::Event::Kind;
using Updates = std::vector<RegistryUpdate>;

/// Shared with the handlers, which may be called as long as the runtime runs.
struct RegistryView::State : std::enable_shared_from_this<State> {
    void connected(const std::shared_ptr<kesa::IKesaApi>& api);
    void lost();
    void refused(const kesa::Response& error);
    void told(const Updates& updates);
    /// The query, if there is one. Not with the mutex held, which its answers take.
    void cancel();
    /// False at the deadline; a `Failure` when the registry refuses, or nobody is there any more to read the output.
    bool await(std::unique_lock<std::mutex>& lock, comm::TimeNs deadline, const std::function<bool()>& predicate);

    const std::string glob;
    std::mutex mutex;
    comm::Condition changed;
    // With the mutex held.
    bool isConnected = false;
    bool isComplete = false; ///< the first answer of this connection has ended
    bool hasEnded = false;   ///< the view
    bool isInterrupted = false;
    std::shared_ptr<ServiceRegistryPexClient> client;
    void* query = nullptr;
    Services services;
    bool wasLost = false;
    Services beforeLoss; ///< what `events` had come to
    std::deque<Event> events;
    std::optional<kesa::Response> refusal;

    explicit State(std::string pattern) : glob(std::move(pattern)) {}

private:
    void announceDifference();
};

void RegistryView::State::connected(const std::shared_ptr<kesa::IKesaApi>& api)
{
    auto registry = std::make_shared<ServiceRegistryPexClient>(api, "application/json");
    {
        const std::lock_guard lock(mutex);
        isConnected = true;
        services.clear();
        changed.notifyAll();
    }
    auto answers =
        kesa::handler<Updates>([self = shared_from_this()](const Updates& updates) { self->told(updates); },
                               [self = shared_from_this()](const kesa::Response& error) { self->refused(error); });
    void* const request = registry->main()->queryRegistry(std::move(answers), kesa::serviceregistry::Query(glob));
    std::unique_lock lock(mutex);
    client = registry;
    query = request;
    const bool isOver = hasEnded;
    lock.unlock();
    if (isOver) {
        cancel();
    }
}

/// The query may have been issued over the next connection already, before its predecessor's loss was told; so it is
/// cancelled, and no answer of it comes after the loss.
void RegistryView::State::lost()
{
    cancel();
    const std::lock_guard lock(mutex);
    if (isComplete) {
        events.push_back({Kind::eREGISTRY_LOST, {}});
        beforeLoss = std::move(services);
        wasLost = true;
    }
    isConnected = false;
    isComplete = false;
    changed.notifyAll();
}

void RegistryView::State::refused(const kesa::Response& error)
{
    if (error.getStatus() == 503) { // the connection: `lost` comes, too
        return;
    }
    const std::lock_guard lock(mutex);
    refusal = error;
    changed.notifyAll();
}

void RegistryView::State::cancel()
{
    std::unique_lock lock(mutex);
    const auto registry = std::exchange(client, nullptr);
    void* const request = std::exchange(query, nullptr);
    lock.unlock();
    if (registry) {
        registry->main()->cancelRequest(request);
    }
}

void RegistryView::State::told(const Updates& updates)
{
    const std::lock_guard lock(mutex);
    for (const RegistryUpdate& update : updates) {
        const std::string& path = update.element->path.toString();
        const bool isRemoval = update.updateType == RegistryUpdate::UpdateTypeEnum::REMOVED;
        if (isRemoval) {
            services.erase(path);
        } else {
            services.insert_or_assign(path, *update.element);
        }
        if (isComplete) {
            events.push_back({isRemoval ? Kind::eREMOVED : Kind::eADDED, *update.element});
        }
    }
    if (updates.empty() && !isComplete) {
        isComplete = true;
        if (wasLost) {
            events.push_back({Kind::eREGISTRY_FOUND, {}});
        }
        announceDifference();
    }
    changed.notifyAll();
}

bool RegistryView::State::await(std::unique_lock<std::mutex>& lock, comm::TimeNs deadline,
                                const std::function<bool()>& predicate)
{
    const bool isSo = comm::waitFor(
        changed, lock, [&] { return refusal || isInterrupted || predicate(); }, deadline);
    if (refusal) {
        throw Failure{ExitCode::eFAILED, "the registry refuses: " + kesa::Response::getErrorMessageWithCode(*refusal)};
    }
    if (isInterrupted) {
        ReaderWatch::fail();
    }
    return isSo;
}

/// After a loss, services that came back as they were are no news; only their records have new numbers.
void RegistryView::State::announceDifference()
{
    const auto isSame = [](const Services& in, const std::string& path, ServiceDef service) {
        const auto found = in.find(path);
        service.id = found == in.end() ? service.id : found->second.id;
        return found != in.end() && found->second == service;
    };
    for (const auto& [path, service] : beforeLoss) {
        if (!isSame(services, path, service)) {
            events.push_back({Kind::eREMOVED, service});
        }
    }
    for (const auto& [path, service] : services) {
        if (!isSame(beforeLoss, path, service)) {
            events.push_back({Kind::eADDED, service});
        }
    }
    beforeLoss.clear();
}

RegistryView::RegistryView(std::vector<kesa::url> locators, const std::string& glob)
    : m_locators(std::move(locators)), m_state(std::make_shared<State>(glob))
{
    using Client = kesa::optional<std::shared_ptr<kesa::IKesaApi>>;
    const ServiceDef registry(kesa::Path("/registry"), ServiceDef::TypeEnum::registry, {}, m_locators);
    m_subscription = KesaRuntime::getInstance()->resolveService(
        registry, kesa::handler<Client>(
                      [state = m_state](const Client& api) {
                          if (api) {
                              state->connected(*api);
                          } else {
                              state->lost();
                          }
                      },
                      [state = m_state](const kesa::Response& error) { state->refused(error); }));
}

RegistryView::~RegistryView()
{
    {
        const std::lock_guard lock(m_state->mutex);
        m_state->hasEnded = true;
    }
    m_state->cancel();
    m_subscription.dispose();
}

Services RegistryView::list(comm::TimeNs deadline)
{
    std::unique_lock lock(m_state->mutex);
    if (!m_state->await(lock, deadline, [this] { return m_state->isComplete; })) {
        failUnreachable(m_state->isConnected);
    }
    return m_state->services;
}

bool RegistryView::waitFor(bool isGone, comm::TimeNs deadline, Services& services)
{
    std::unique_lock lock(m_state->mutex);
    const bool isSo =
        m_state->await(lock, deadline, [&] { return m_state->isComplete && m_state->services.empty() == isGone; });
    if (!m_state->isComplete) {
        failUnreachable(m_state->isConnected);
    }
    services = m_state->services;
    return isSo;
}

RegistryView::Event RegistryView::next()
{
    std::unique_lock lock(m_state->mutex);
    m_state->await(lock, comm::NEVER, [this] { return !m_state->events.empty(); });
    Event event = std::move(m_state->events.front());
    m_state->events.pop_front();
    return event;
}

void RegistryView::interrupt()
{
    const std::lock_guard lock(m_state->mutex);
    m_state->isInterrupted = true;
    m_state->changed.notifyAll();
}

/// In doubt somebody listens and says nothing: before the registry has answered, a stopped one looks like a missing
/// one.
void RegistryView::failUnreachable(bool isConnected) const
{
    const std::string& where = m_locators.front().toString();
    const auto why =
        isConnected ? kesa::commadapter::Unreachable() : kesa::commadapter::whyUnreachable(m_locators.front());
    if (why.reason.empty()) {
        throw Failure{ExitCode::eNO_REGISTRY,
                      fmt::format("the registry at {} does not answer: its process is stopped or busy; try a longer "
                                  "--timeout, or restart it",
                                  where)};
    }
    throw Failure{
        ExitCode::eNO_REGISTRY,
        fmt::format("no registry at {}: {}{}", where, why.reason,
                    why.isForbidden ? "" : "; start kesa-registryd, or set KESA_RUN_DIR to the directory it uses")};
}

} // namespace kesactl
