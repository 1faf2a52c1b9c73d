#include "Interruption.h"
#include "ServedLoops.h"
#include "resourceError.h"
#include "waiting.h"

#include <comm/Condition.h>
#include <comm/Reactor.h>
#include <comm/onAnyLoop.h>
#include <kesa/ease/Client.h>
#include <kesa/ease/get.h>
#include <kesa/headers.h>
#include <kesa/reasonOf.h>
#include <kesa/runtime/v02/IReasons.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <util/shellWord.h>

#include <algorithm>
#include <atomic>
#include <fmt/format.h>
#include <mutex>
#include <new>
#include <utility>

namespace kesa {

namespace {

void setError(GetResult& result, const Response& error)
{
    result.status = error.getStatus();
    result.error = reasonOf(error);
}

/// What holds the I/O loop of this process, over which its answers come.
std::string whyNoAnswer()
{
    std::string why;
    runtime::v02::KesaRuntime::withInstance([&why](runtime::v02::IKesaRuntime& runtime) {
        if (const auto reasons = runtime.reasons()) {
            why = reasons->obstacle(url());
        }
    });
    return why;
}

/// A time that was over has a cause that a client may know, or a command can find.
void addObstacle(GetResult& result, const IKesaApi& api)
{
    constexpr unsigned short TIME_IS_OVER = 504;
    if (result.status != TIME_IS_OVER) {
        return;
    }
    if (const auto* const client = dynamic_cast<const Client*>(&api)) {
        const std::string why = client->reason();
        result.error += why.empty() ? fmt::format("; '{0}' is connected; kesactl why {1} says more", client->path(),
                                                  util::shellWord(client->path()))
                                    : "; " + why;
    } else if (const std::string why = whyNoAnswer(); !why.empty()) {
        result.error += "; " + why;
    }
}

/// What the waiting caller and the handler it sent share. The handler is a part of it, so that a call costs one
/// allocation; deleting the handler lets go of the whole.
class Call {
public:
    /// The second is handed out, once, as the handler of the request.
    Call() = default;
    std::unique_ptr<IResponseHandler<Response>> handler()
    {
        return std::unique_ptr<IResponseHandler<Response>>(&m_handler);
    }

    /// True when nothing comes any more; false when the request is still open.
    bool wait(comm::TimeNs deadline, GetResult& result)
    {
        const detail::Interruption::Wait wait(m_changed, m_mutex);
        std::unique_lock<std::mutex> lock(m_mutex);
        comm::waitFor(
            m_changed, lock, [this, &wait] { return m_response || m_isOver || wait.signal() != 0; }, deadline);
        if (m_response) {
            result.response = std::move(m_response);
            m_response.reset();
            m_isTaken = true;
        } else if (m_error) {
            setError(result, *m_error);
            result.errorResponse = std::move(m_error);
        } else if (!m_isOver && wait.signal() != 0) {
            result.error = detail::Interruption::text(wait.signal());
        }
        return m_isOver;
    }

    void release()
    {
        if (m_owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

private:
    class Handler final : public IResponseHandler<Response> {
    public:
        explicit Handler(Call& call) noexcept : m_call(call) {}
        static void operator delete(Handler* handler, std::destroying_delete_t)
        {
            Call& call = handler->m_call;
            call.end(nullptr, false);
            call.release();
        }

        bool onNext(const Response& response) noexcept override { return m_call.take(response); }
        void onError(const Response& error) noexcept override { m_call.end(&error, false); }
        void onCompleted() noexcept override { m_call.end(nullptr, true); }

    private:
        Call& m_call;
    };

    bool take(const Response& response)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_response || m_isTaken || m_isOver) {
                return true;
            }
            m_response = response;
        }
        wake();
        return false;
    }

    /// Neither: the handler was dropped. Wakes only who still waits for an answer.
    void end(const Response* error, bool isCompleted)
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (std::exchange(m_isOver, true)) {
                return;
            }
            if (m_response || m_isTaken) {
                return;
            }
            if (error != nullptr) {
                m_error = *error;
            } else if (isCompleted) {
                m_response.emplace();
            }
        }
        wake();
    }

    /// An I/O loop wakes the caller when its turn ends: in most cases the next message of the turn is the call's end,
    /// and a caller that was awake before would get in the way of it, or even cancel what is about to be over.
    void wake()
    {
        const comm::LoopInfo* const loop = comm::currentLoop();
        if (loop != nullptr && loop->isReactor()) {
            m_owners.fetch_add(1, std::memory_order_relaxed); // the handler is an owner meanwhile
            loop->reactor->atTurnEnd(Waking(*this));
        } else {
            m_changed.notifyAll();
        }
    }

    /// Wakes when it is destroyed, so also when the loop ends first.
    class Waking {
    public:
        explicit Waking(Call& call) noexcept : m_call(&call) {}
        Waking(Waking&& other) noexcept : m_call(std::exchange(other.m_call, nullptr)) {}
        Waking& operator=(Waking&&) = delete;
        ~Waking()
        {
            if (m_call != nullptr) {
                m_call->m_changed.notifyAll();
                m_call->release();
            }
        }
        void operator()() const noexcept {}

    private:
        Call* m_call;
    };

    std::atomic<int> m_owners{2};
    std::mutex m_mutex; ///< of all below: the caller waits while a loop answers
    comm::Condition m_changed;
    std::optional<Response> m_response;
    std::optional<Response> m_error;
    bool m_isTaken = false;
    bool m_isOver = false;
    Handler m_handler{*this};
};

} // namespace

GetResult get(IKesaApi& api, Request request, Duration limit)
{
    GetResult result;
    result.error = detail::refusalToWait("kesa::get", "call IKesaApi::request with a handler");
    if (result.error.empty()) {
        result.error = detail::refusalToWaitFor(api);
    }
    if (!result.error.empty()) {
        return result;
    }
    if (const auto error = detail::resourceError(request)) {
        setError(result, *error);
        return result;
    }
    if (const int signal = detail::Interruption::current(); signal != 0) {
        result.error = detail::Interruption::text(signal);
        return result;
    }
    // A client object ends the request by itself, but any other service object knows of no limits: the wait has one,
    // too.
    const auto timeout = std::max(limit.nanoseconds(), std::chrono::nanoseconds::zero());
    headers::appendTimeout(request, timeout);
    const comm::TimeNs deadline = detail::deadlineIn(timeout);
    Call* const call = new Call;
    auto handler = call->handler();
    void* const handle = api.request(request, std::move(handler));
    handler.reset(); // left here when nothing was sent
    const bool isOver = call->wait(deadline, result);
    if (!isOver) {
        api.cancel(handle);
    }
    call->release();
    if (!result.response && result.error.empty()) {
        if (isOver) {
            result.error =
                fmt::format("'{} {}' was dropped without an answer", request.getCommand(), request.getPath());
        } else {
            setError(result, Response::createTimeoutResponse(std::chrono::ceil<std::chrono::milliseconds>(timeout)));
        }
    }
    addObstacle(result, api);
    return result;
}

} // namespace kesa
