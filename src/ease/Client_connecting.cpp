// How a client follows its service. The registry is followed for knowing (the tracking), the locators of the record for
// talking (the resolving), since a connection does not pass the registry:
//
// - ADDED with other locators than those resolved: resolve anew. With the same: it is the service we have, or will
// have.
// - REMOVED while connected: no notice, the registry may be away. While not connected: let go.
// - connection lost while the registry knows the service: keep the resolving, which connects again by itself. While it
//   does not: let go.
#include "ClientImpl.h"
#include "waiting.h"

#include <comm/ICallWatch.h>
#include <fmt/format.h>
#include <kesa/ease/handler.h>
#include <kesa/reasonOf.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <tracing/Channel.h>
#include <util/shellWord.h>

namespace kesa {

using runtime::v02::IKesaRuntime;
using runtime::v02::IRuntimeRegistry;
using serviceregistry::ServiceDef;

namespace {

std::string locatorsOf(const ServiceDef& record)
{
    std::string all;
    for (const url& locator : record.locators) {
        all.append(all.empty() ? "" : ", ").append(locator.toString());
    }
    return all;
}

/// Without its status, which goes beside it.
std::string sentenceOf(const Response& error)
{
    std::string text = reasonOf(error);
    if (const std::string status = std::to_string(error.getStatus()) + ": "; text.starts_with(status)) {
        text.erase(0, status.size());
    }
    return text;
}

constexpr const char* RUNTIME_ENDED = "the runtime has ended, and with it this client; end the runtime last";

} // namespace

/// Unless it has failed, it dies after our own end, or with the runtime.
class Client::Impl::Tracking final : public IResponseHandler<ResourceUpdate<ServiceDef>> {
public:
    explicit Tracking(std::shared_ptr<Impl> client) : m_client(std::move(client)) {}
    Tracking(const Tracking&) = delete;
    Tracking& operator=(const Tracking&) = delete;
    ~Tracking() override
    {
        if (!m_hasFailed) {
            m_client->runtimeEnded();
        }
    }
    bool onNext(const ResourceUpdate<ServiceDef>& update) override
    {
        m_client->onNews([&] { m_client->tracked(update); });
        return false;
    }
    void onError(const Response& error) override
    {
        m_hasFailed = true;
        m_client->refusedForGood(error);
    }
    void onCompleted() override {}

private:
    const std::shared_ptr<Impl> m_client;
    bool m_hasFailed = false;
};

void Client::Impl::start(IRuntimeRegistry* runtime)
{
    if (runtime == nullptr) {
        m_hasEnded = true;
        setState(nullptr, detail::NO_RUNTIME, 503);
        return;
    }
    m_runtime = runtime;
    if (const auto* const whole = dynamic_cast<const IKesaRuntime*>(runtime)) {
        m_reasons = whole->reasons();
    }
    // Without `m_news`: who calls us may hold what a handler of `onChange` asks for when it calls `use`.
    Disposable tracking = runtime->trackService(m_path, std::make_unique<Tracking>(shared_from_this()));
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_hasEnded) { // by the runtime, which ends its trackings itself
        m_tracking = std::move(tracking);
    }
}

template <class Work>
void Client::Impl::onNews(const Work& work)
{
    std::vector<Asked> left;
    {
        const std::lock_guard<std::recursive_mutex> lock(m_news);
        if (m_hasEnded) {
            return;
        }
        work();
        left.swap(m_left);
    }
    for (const Asked& asked : left) {
        asked.cancel();
    }
}

void Client::Impl::tracked(const ResourceUpdate<ServiceDef>& update)
{
    m_isKnown = update.type == ResourceUpdateType::eADDED;
    if (m_isKnown && (m_locators.empty() || update.element.locators != m_locators)) {
        letGo();
        resolve(update.element);
    } else if (!m_isKnown && !isConnected()) {
        letGo();
    }
}

void Client::Impl::resolve(const ServiceDef& record)
{
    if (m_hasEnded) {
        return;
    }
    m_locators = record.locators;
    setResolved(m_locators);
    setState(nullptr, fmt::format("'{}' is known at {} and not connected", m_path, locatorsOf(record)), 0);
    m_resolving =
        m_runtime->resolveService(record, handler<optional<Api>>(
                                              [self = shared_from_this(), number = m_number](const optional<Api>& api) {
                                                  self->onNews([&] { self->resolved(number, api); });
                                              },
                                              [self = shared_from_this(), number = m_number](const Response& error) {
                                                  self->onNews([&] { self->refused(number, error); });
                                              }));
}

void Client::Impl::resolved(unsigned number, const optional<Api>& api)
{
    if (number != m_number) {
        return; // of a resolving that has been disposed
    }
    if (api) {
        const Change change = setState(*api, {}, 0);
        for (const auto& follow : change.follows) {
            follow->connected(*api, change.number);
        }
        tell(true);
        return;
    }
    lose(fmt::format("the connection to '{}' is lost", m_path));
    if (!m_isKnown && !m_hasEnded) {
        letGo();
    }
}

void Client::Impl::refused(unsigned number, const Response& error)
{
    if (number == m_number) {
        letGo();
        setState(nullptr,
                 fmt::format("'{}' cannot be reached: {}; kesactl why {} says more", m_path, sentenceOf(error),
                             util::shellWord(m_path)),
                 error.getStatus());
    }
}

void Client::Impl::refusedForGood(const Response& error)
{
    Change change;
    onNews([&] { change = setState(nullptr, sentenceOf(error), error.getStatus(), error); });
    for (const auto& follow : change.follows) {
        follow->end(error);
    }
}

void Client::Impl::runtimeEnded()
{
    onNews([this] {
        lose(RUNTIME_ENDED);
        if (!m_hasEnded) { // by a handler that was told
            setState(nullptr, RUNTIME_ENDED, 503);
        }
    });
    std::vector<Asked> left;
    for (const auto& follow : takeAll(left)) {
        follow->end(Response::createErrorResponse(503, RUNTIME_ENDED));
    }
}

void Client::Impl::letGo()
{
    lose(nobody());
    if (m_hasEnded) {
        return; // by a handler that was told
    }
    ++m_number;
    m_resolving.dispose();
    m_resolving = Disposable();
    m_locators.clear();
    setResolved({});
    setState(nullptr, nobody(), 0);
}

void Client::Impl::lose(const std::string& reason)
{
    Change change;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_isConnected) {
            return;
        }
        m_isConnected = false;
        m_reason = reason;
        change = {++m_changes, m_follows};
    }
    for (const auto& follow : change.follows) {
        m_left.push_back(follow->lost(change.number));
    }
    tell(false);
}

void Client::Impl::setResolved(std::vector<url> locators)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_resolved.swap(locators);
}

Client::Impl::Change Client::Impl::setState(const Api& api, const std::string& reason, unsigned short status,
                                            const std::optional<Response>& refusal)
{
    Api before;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (api != m_api) {
        before = std::exchange(m_api, api);
        ++m_apis;
    }
    m_isConnected = api != nullptr;
    m_reason = reason;
    m_status = status;
    m_refusal = refusal;
    m_changed.notifyAll();
    return {++m_changes, m_follows};
}

void Client::Impl::onChange(util::UniqueFunction<void(bool)> handler)
{
    const auto kept = std::make_shared<Handler>(std::move(handler));
    const std::lock_guard<std::recursive_mutex> lock(m_news);
    if (m_hasEnded) {
        static const ::tracing::Channel channel("KESA_EASE");
        KESA_TRACE(channel, 3, "[onChange] a handler of the client of '%s' will hear nothing: %s", m_path.c_str(),
                   reason().c_str());
        return;
    }
    m_handlers.push_back(kept);
    if (isConnected()) {
        call(*kept, true);
    }
}

void Client::Impl::tell(bool isConnected)
{
    const Handlers handlers = m_handlers; // one of them may add another, which is told itself, or end us
    for (const auto& handler : handlers) {
        if (m_hasEnded) {
            return;
        }
        call(*handler, isConnected);
    }
}

void Client::Impl::call(Handler& handler, bool isConnected)
{
    if (comm::ICallWatch* const watch = comm::ICallWatch::current()) {
        watch->tellInside("onChange", m_path, [&] { handler(isConnected); });
    } else {
        handler(isConnected);
    }
}

} // namespace kesa
