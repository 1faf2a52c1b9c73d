// How a client follows its service. The registry is followed for knowing (the tracking), the locators of the record for
// talking (the resolving), since a connection does not pass the registry:
//
// - ADDED with other locators than those resolved: resolve anew. With the same: it is the service we have, or will
// have.
// - REMOVED while connected: no notice, the registry may be away. While not connected: let go.
// - connection lost while the registry knows the service: keep the resolving, which connects again by itself. While it
//   does not: let go.
//
// Two locks. `m_news` is held while news are worked on and told, so whoever takes it waits for the handlers of
// `onChange`. Under `m_mutex` is what `request` and `follow` need, and with that held nothing is asked that may wait
// for a handler: a stream's handler runs under its stream's own lock and may call these two, while a handler of
// `onChange` disposes that very stream. So `follow` never takes `m_news`.
#include "Follow.h"
#include "Interruption.h"
#include "waiting.h"

#include <comm/Condition.h>
#include <comm/ICallWatch.h>
#include <fmt/format.h>
#include <kesa/OpenRequest.h>
#include <kesa/ease/handler.h>
#include <kesa/ease/use.h>
#include <kesa/headers.h>
#include <kesa/reasonOf.h>
#include <kesa/responsesemantics.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <tracing/Channel.h>

#include <algorithm>
#include <vector>

namespace kesa {

using runtime::v02::IKesaRuntime;
using runtime::v02::IReasons;
using runtime::v02::IRuntimeRegistry;
using serviceregistry::ServiceDef;

namespace {

using Api = std::shared_ptr<IKesaApi>;

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

} // namespace

class Client::Impl : public std::enable_shared_from_this<Impl> {
public:
    explicit Impl(std::string path) : m_path(std::move(path)) {}

    void start(IRuntimeRegistry* runtime)
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

    /// Nothing of this is touched after a handler has been called: it may drop the client.
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        const Api api = m_api;
        const std::size_t number = m_apis;
        if (!api) {
            const std::optional<Response> refusal = m_refusal;
            const bool mayStillConnect = m_apis == 0 && m_status == 0;
            lock.unlock();
            handler->onError(refusal ? *refusal
                                     : Response::createErrorResponse(503, reason() + (mayStillConnect ? WAIT : "")));
            return UNDEFINED_REQUEST_HANDLE;
        }
        lock.unlock();
        const auto open = m_requests.open(std::move(handler));
        if (!open) {
            return UNDEFINED_REQUEST_HANDLE;
        }
        void* const handle = open->handle();
        void* const work = api->request(request, open->makeHandler());
        if (open->setWork({number, work})) {
            api->cancel(work);
        }
        return handle;
    }

    void cancel(void* handle)
    {
        if (const auto open = m_requests.find(handle); open && open->withdraw()) {
            cancelWork(*open);
        }
    }

    const std::string& path() const noexcept { return m_path; }

    bool isConnected() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_isConnected;
    }

    /// `hasAnswered`: the registry, which was asked for the path.
    std::string reason(std::optional<bool> hasAnswered = {}) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::string reason = m_reason;
        const std::vector<url> resolved = m_resolved;
        const bool isConnected = m_isConnected;
        if (m_status != 0 || !m_reasons) {
            return reason;
        }
        lock.unlock();
        if (resolved.empty()) {
            return reason + ": " +
                   (hasAnswered ? m_reasons->whyUnknownWhenAsked(m_path, *hasAnswered) : m_reasons->whyUnknown(m_path));
        }
        std::string why;
        for (const url& locator : resolved) { // the runtime takes one of them
            why = why.empty() ? m_reasons->obstacle(locator) : why;
        }
        if (isConnected) {
            return why.empty() ? why : fmt::format("'{}' is connected and silent: {}", m_path, why);
        }
        return fmt::format("{}{}{}; 'kesactl why {}' says more", reason, why.empty() ? "" : ": ", why, m_path);
    }

    void onChange(util::UniqueFunction<void(bool)> handler)
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

    Disposable follow(Request request, std::unique_ptr<IResponseHandler<Response>>&& handler)
    {
        if (!request.getHeader(headers::RESPONSE_SEMANTIC).isDefined()) {
            headers::appendResponseSemantic(request, responsesemantics::PERSISTENT_STREAM);
        }
        auto taken = std::move(handler); // dropped without the lock, if it is
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_hasEnded || m_refusal) {
            const Response error = m_refusal       ? *m_refusal
                                   : m_status != 0 ? Response::createErrorResponse(m_status, m_reason)
                                                   : Response::createErrorResponse(503, ENDED);
            lock.unlock();
            if (taken) {
                taken->onError(error);
            }
            return {};
        }
        const auto follow = std::make_shared<Follow>(m_path, std::move(request), m_following.open(std::move(taken)));
        addFollow(follow);
        const Api api = m_isConnected ? m_api : nullptr;
        const unsigned change = m_changes;
        lock.unlock();
        if (api) {
            follow->connected(api, change);
        }
        return Disposable([weak = std::weak_ptr<Follow>(follow)] {
            if (const auto ended = weak.lock()) {
                ended->end();
            }
        });
    }

    /// Each caller waits for the handlers that are running, not only the first.
    void end()
    {
        std::vector<Asked> left;
        for (const auto& follow : takeAll(left)) {
            follow->end();
        }
        for (const Asked& asked : left) {
            asked.cancel();
        }
        for (const auto& running : m_following.close()) {
            running->withdraw();
        }
        for (const auto& request : m_requests.close()) {
            if (request->withdraw(Response::createErrorResponse(503, ENDED))) {
                cancelWork(*request);
            }
        }
        if (m_runtime != nullptr) {
            setState(nullptr, ENDED, 503);
        }
    }

    /// The error and its status; without one it is connected.
    void wait(std::chrono::nanoseconds timeout, ConnectResult& result)
    {
        const detail::Interruption::Wait wait(m_changed, m_mutex);
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto isDecided = [this] { return m_isConnected || m_status != 0; };
        comm::waitFor(
            m_changed, lock, [&] { return isDecided() || wait.signal() != 0; }, detail::deadlineIn(timeout));
        if (m_isConnected) {
            return;
        }
        const int signal = isDecided() ? 0 : wait.signal();
        constexpr unsigned short TIME_IS_OVER = 504;
        result.status = signal != 0 || isDecided() ? m_status : TIME_IS_OVER;
        result.error = m_reason;
        lock.unlock();
        if (signal != 0) {
            result.error = fmt::format("{}: {}", detail::Interruption::text(signal), reason());
        }
    }

private:
    static constexpr const char* ENDED = "the client has ended; kesa::use makes another";
    static constexpr const char* WAIT = "; wait with whenConnected, or use kesa::connect";
    static constexpr const char* RUNTIME_ENDED = "the runtime has ended, and with it this client; end the runtime last";

    using Handler = util::UniqueFunction<void(bool)>;
    using Handlers = std::vector<std::shared_ptr<Handler>>;
    using Follows = std::vector<std::shared_ptr<Follow>>;

    /// Of the connection, and who is to be told.
    struct Change {
        unsigned number = 0;
        Follows follows;
    };

    /// Unless it has failed, it dies after our own end, or with the runtime.
    class Tracking final : public IResponseHandler<ResourceUpdate<ServiceDef>> {
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

    /// What changes the tables below goes through here: one at a time, and nothing after the end. What it leaves to be
    /// cancelled is cancelled without the lock.
    template <class Work>
    void onNews(const Work& work)
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

    void tracked(const ResourceUpdate<ServiceDef>& update)
    {
        m_isKnown = update.type == ResourceUpdateType::eADDED;
        if (m_isKnown && (m_locators.empty() || update.element.locators != m_locators)) {
            letGo();
            resolve(update.element);
        } else if (!m_isKnown && !isConnected()) {
            letGo();
        }
    }

    void resolve(const ServiceDef& record)
    {
        if (m_hasEnded) {
            return;
        }
        m_locators = record.locators;
        setResolved(m_locators);
        setState(nullptr, fmt::format("'{}' is known at {} and not connected", m_path, locatorsOf(record)), 0);
        m_resolving = m_runtime->resolveService(
            record, handler<optional<Api>>(
                        [self = shared_from_this(), number = m_number](const optional<Api>& api) {
                            self->onNews([&] { self->resolved(number, api); });
                        },
                        [self = shared_from_this(), number = m_number](const Response& error) {
                            self->onNews([&] { self->refused(number, error); });
                        }));
    }

    void resolved(unsigned number, const optional<Api>& api)
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

    void refused(unsigned number, const Response& error)
    {
        if (number == m_number) {
            letGo();
            setState(nullptr,
                     fmt::format("'{}' cannot be reached: {}; 'kesactl why {}' says more", m_path, sentenceOf(error),
                                 m_path),
                     error.getStatus());
        }
    }

    /// By the registry or the runtime, which says nothing of the path any more.
    void refusedForGood(const Response& error)
    {
        Change change;
        onNews([&] { change = setState(nullptr, sentenceOf(error), error.getStatus(), error); });
        for (const auto& follow : change.follows) {
            follow->end(error);
        }
    }

    /// Open requests have been told by then. What follows is told that nothing more comes.
    void runtimeEnded()
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

    void letGo()
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

    /// The client object is kept: it may be connected again before we hear of it.
    void lose(const std::string& reason)
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

    void tell(bool isConnected)
    {
        const Handlers handlers = m_handlers; // one of them may add another, which is told itself, or end us
        for (const auto& handler : handlers) {
            if (m_hasEnded) {
                return;
            }
            call(*handler, isConnected);
        }
    }

    /// The loop names it, not the handler of ours that it called.
    void call(Handler& handler, bool isConnected)
    {
        if (comm::ICallWatch* const watch = comm::ICallWatch::current()) {
            watch->tellInside("onChange", m_path, [&] { handler(isConnected); });
        } else {
            handler(isConnected);
        }
    }

    void setResolved(std::vector<url> locators)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_resolved.swap(locators);
    }

    /// Connected to `api`, or not, with the reason. `refusal` is what requests are answered instead of 503 and that.
    Change setState(const Api& api, const std::string& reason, unsigned short status,
                    const std::optional<Response>& refusal = {})
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

    /// Those that are over go when there are twice as many as were left the last time.
    void addFollow(const std::shared_ptr<Follow>& follow)
    {
        if (m_follows.size() >= m_swept) {
            m_follows.erase(
                std::remove_if(m_follows.begin(), m_follows.end(), [](const auto& f) { return f->isOver(); }),
                m_follows.end());
            constexpr std::size_t FEW = 16;
            m_swept = std::max(2 * m_follows.size(), FEW);
        }
        m_follows.push_back(follow);
    }

    /// Ends the news, once none is being told; all but `left` and what is answered is destroyed without a lock.
    Follows takeAll(std::vector<Asked>& left)
    {
        Handlers handlers;
        Disposable tracking;
        Disposable resolving;
        Follows follows;
        {
            const std::lock_guard<std::recursive_mutex> news(m_news);
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_hasEnded = true;
            handlers.swap(m_handlers);
            std::swap(tracking, m_tracking);
            std::swap(resolving, m_resolving);
            follows.swap(m_follows);
            left.swap(m_left);
        }
        tracking.dispose();
        resolving.dispose();
        return follows;
    }

    void cancelWork(const OpenRequest& open)
    {
        const OpenRequest::Work work = open.work();
        std::unique_lock<std::mutex> lock(m_mutex);
        const Api api = work.part == m_apis ? m_api : nullptr; // an older one has ended its requests, or is about to
        lock.unlock();
        Asked{api, work.handle}.cancel();
    }

    std::string nobody() const { return fmt::format("nobody is known to provide '{}'", m_path); }

    const std::string m_path;
    IRuntimeRegistry* m_runtime = nullptr; ///< used in its own calls only, so while it lives
    std::shared_ptr<const IReasons> m_reasons;

    /// Held while the handlers of `onChange` are called, so that `end` waits for them; recursive, since they may end
    /// us.
    std::recursive_mutex m_news;
    bool m_isKnown = false;      ///< the registry knows the service; this and the following under `m_news`
    std::vector<url> m_locators; ///< those resolved; empty: none
    unsigned m_number = 0;       ///< of the resolving
    std::vector<Asked> m_left;   ///< to be cancelled
    Disposable m_tracking;
    Disposable m_resolving;
    Handlers m_handlers;
    bool m_hasEnded = false; ///< written under both locks, so either will do for reading

    mutable std::mutex m_mutex;
    comm::Condition m_changed;
    Api m_api;              ///< this and the following under `m_mutex`
    std::size_t m_apis = 0; ///< how many there have been: the part of a request's work
    bool m_isConnected = false;
    unsigned m_changes = 0;            ///< of that
    std::string m_reason = nobody();   ///< what `m_reasons` adds is asked for when it is wanted
    std::vector<url> m_resolved;       ///< `m_locators`, for that
    unsigned short m_status = 0;       ///< of an error that will not pass by itself
    std::optional<Response> m_refusal; ///< by the registry or the runtime
    Follows m_follows;
    std::size_t m_swept = 0; ///< so many are kept before those that are over go

    OpenRequests m_requests;
    OpenRequests m_following;
};

Client::Client(IRuntimeRegistry* runtime, const std::string& path) : m_impl(std::make_shared<Impl>(path))
{
    m_impl->start(runtime);
}

Client::~Client()
{
    m_impl->end();
}

void* Client::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept
{
    return m_impl->request(request, std::move(handler));
}

// What calls a handler, or destroys one, keeps what it works on: the handler may drop the client.

void Client::cancel(void* handle) noexcept
{
    const auto impl = m_impl;
    impl->cancel(handle);
}

const std::string& Client::path() const noexcept
{
    return m_impl->path();
}

bool Client::isConnected() const
{
    return m_impl->isConnected();
}

std::string Client::reason() const
{
    return m_impl->reason();
}

void Client::onChange(util::UniqueFunction<void(bool)> handler)
{
    const auto impl = m_impl;
    impl->onChange(std::move(handler));
}

Disposable Client::follow(Request request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    const auto impl = m_impl;
    return impl->follow(std::move(request), std::move(handler));
}

void Client::end()
{
    const auto impl = m_impl;
    impl->end();
}

void Client::wait(std::chrono::nanoseconds timeout, ConnectResult& result)
{
    m_impl->wait(timeout, result);
}

std::string Client::reasonWhenAsked(bool hasRegistryAnswered) const
{
    return m_impl->reason(hasRegistryAnswered);
}

} // namespace kesa
