#include "ServedLoops.h"
#include "isGiven.h"

#include <comm/endThrown.h>
#include <comm/onAnyLoop.h>
#include <fmt/format.h>
#include <kesa/OpenRequest.h>
#include <kesa/RequestContext.h>
#include <kesa/ease/on.h>
#include <kesa/headers.h>
#include <tracing/Channel.h>

#include <atomic>
#include <optional>
#include <utility>

namespace kesa {

namespace {

const ::tracing::Channel& channel()
{
    static const ::tracing::Channel instance("KESA_EASE");
    return instance;
}

struct Served {
    explicit Served(std::shared_ptr<IKesaApi> s) : service(std::move(s)) {}
    const std::shared_ptr<IKesaApi> service;
    std::atomic<bool> isEndTraced{false};
};

/// The client's, with what counts the request as waiting until the loop serves it, or it ends before.
class CountedHandler final : public IResponseHandler<Response> {
public:
    CountedHandler(std::unique_ptr<IResponseHandler<Response>>&& handler,
                   std::shared_ptr<detail::OwnLoop::Waiting> waiting)
        : m_handler(std::move(handler)), m_waiting(std::move(waiting))
    {}
    CountedHandler(const CountedHandler&) = delete;
    CountedHandler& operator=(const CountedHandler&) = delete;
    ~CountedHandler() override { m_waiting->end(); }
    bool onNext(const Response& response) override { return m_handler->onNext(response); }
    void onError(const Response& error) override { m_handler->onError(error); }
    void onCompleted() override { m_handler->onCompleted(); }

private:
    const std::unique_ptr<IResponseHandler<Response>> m_handler;
    const std::shared_ptr<detail::OwnLoop::Waiting> m_waiting;
};

/// One request on its way to the loop. Dropped there without having run, it answers the client itself.
class Serving {
public:
    Serving(std::shared_ptr<Served> served, Request request, std::optional<RequestContext> context,
            std::optional<comm::TimeNs> deadline, std::shared_ptr<OpenRequest> open,
            std::shared_ptr<detail::OwnLoop::Waiting> waiting)
        : m_served(std::move(served)), m_request(std::move(request)), m_context(std::move(context)),
          m_deadline(deadline), m_open(std::move(open)), m_waiting(std::move(waiting))
    {}
    Serving(Serving&&) = default;
    Serving& operator=(Serving&&) = delete;
    ~Serving()
    {
        if (m_open && m_open->isOpen()) {
            if (!m_served->isEndTraced.exchange(true)) {
                KESA_TRACE(channel(), 3, "[on] %s: from now on each request is answered 503", LOOP_HAS_ENDED);
            }
            m_open->onError(Response::createErrorResponse(503, LOOP_HAS_ENDED));
        }
    }

    void operator()()
    {
        const auto open = std::move(m_open);
        m_waiting->end();
        const RequestContext::Scope scope(m_context ? &*m_context : nullptr, m_deadline);
        if (!open->isOpen()) {
            return; // cancelled before it began
        }
        const auto describe = [this] { return describeRequest(); };
        const detail::OwnLoop::Call<std::remove_const_t<decltype(describe)>> call(m_waiting->loop(), describe);
        void* const work = callService(open);
        if (open->setWork({0, work})) {
            m_served->service->cancel(work);
        }
    }

private:
    void* callService(const std::shared_ptr<OpenRequest>& open) const
    {
        try {
            return m_served->service->request(m_request, open->makeHandler());
        } catch (...) {
            comm::endThrown(channel(), describeRequest() + " of a service given to kesa::on");
        }
    }
    std::string describeRequest() const
    {
        return "the request '" + m_request.getCommand() + ' ' + m_request.getPath() + '\'';
    }

    static constexpr const char* LOOP_HAS_ENDED = "the loop given to kesa::on has ended";

    std::shared_ptr<Served> m_served;
    Request m_request;
    std::optional<RequestContext> m_context;
    std::optional<comm::TimeNs> m_deadline;
    std::shared_ptr<OpenRequest> m_open; ///< until it is served
    std::shared_ptr<detail::OwnLoop::Waiting> m_waiting;
};

class LoopService final : public IKesaApi, public detail::HasServedLoop {
public:
    LoopService(const std::shared_ptr<comm::ActiveObject>& activeObject, std::shared_ptr<IKesaApi> service)
        : m_activeObject(activeObject), m_served(std::make_shared<Served>(std::move(service)))
    {
        servedLoop = detail::OwnLoop::of(activeObject);
        if (activeObject && activeObject->isCurrentThread()) {
            servedLoop->noteHere();
        } else {
            send([noted = servedLoop] { noted->noteHere(); });
        }
    }
    ~LoopService() override
    {
        for (const auto& open : m_requests.close()) {
            end(*open, open->withdraw(Response::createErrorResponse(503, "the service has ended")));
        }
        send([served = std::move(m_served)] {}); // it dies where it was called
    }

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept override
    {
        auto waiting = std::make_shared<detail::OwnLoop::Waiting>(servedLoop);
        auto open = m_requests.open(std::make_unique<CountedHandler>(std::move(handler), waiting));
        if (!open) {
            return UNDEFINED_REQUEST_HANDLE;
        }
        void* const handle = open->handle();
        std::optional<RequestContext> context;
        if (const RequestContext* const current = RequestContext::current()) {
            context = *current;
            context->stream = nullptr; // lives in this call only
        }
        send(Serving{m_served, request, std::move(context), RequestContext::deadline(), std::move(open),
                     std::move(waiting)});
        return handle;
    }

    void cancel(void* handle) noexcept override
    {
        if (const auto open = m_requests.find(handle)) {
            end(*open, open->withdraw());
        }
    }

private:
    void end(const OpenRequest& open, bool isWithdrawn)
    {
        if (void* const work = open.work().handle; isWithdrawn && work != UNDEFINED_REQUEST_HANDLE) {
            send([served = m_served, work] { served->service->cancel(work); });
        }
    }

    template <class F>
    void send(F&& function)
    {
        if (const auto activeObject = m_activeObject.lock()) {
            post(*activeObject, std::forward<F>(function));
        }
    }

    const std::weak_ptr<comm::ActiveObject> m_activeObject;
    std::shared_ptr<Served> m_served;
    OpenRequests m_requests;
};

} // namespace

namespace detail {

namespace {

std::size_t bytesOf(const Response& response)
{
    return response.getPayload().size() + LoopRoom::OF_EACH;
}

} // namespace

HasLoopRoom::~HasLoopRoom() = default;

bool LoopRoom::take(const Response& response) noexcept
{
    const std::size_t bytes = bytesOf(response);
    const std::size_t before = m_bytes.fetch_add(bytes);
    const bool isFull = before != 0 && before + bytes > MOST_BYTES;
    if (isFull) {
        m_bytes.fetch_sub(bytes);
    }
    m_isFull = isFull;
    return isFull;
}

void LoopRoom::give(const Response& response) noexcept
{
    m_bytes.fetch_sub(bytesOf(response));
}

Response LoopRoom::tooSlow() const
{
    Response error = Response::createErrorResponse(503, TOO_SLOW);
    headers::appendReason(error, fmt::format("a handler given to kesa::on takes values on the loop '{}' more slowly "
                                             "than they come: {} bytes wait, with the next more than the {} that may",
                                             m_loop, m_bytes.load(), MOST_BYTES));
    return error;
}

bool isHandlerGiven(bool isThere)
{
    return isGiven(isThere, "kesa::on is given no handler: give it kesa::handler<T>, or a service object");
}

void endThrownByHandler()
{
    const comm::LoopInfo* const loop = comm::currentLoop();
    const std::string name(loop == nullptr ? std::string_view() : loop->name);
    comm::endThrown(channel(), "a handler given to kesa::on, on the loop '" + name + "',");
}

} // namespace detail

std::shared_ptr<IKesaApi> on(const std::shared_ptr<comm::ActiveObject>& activeObject, std::shared_ptr<IKesaApi> service)
{
    if (!detail::isHandlerGiven(service != nullptr)) {
        return nullptr;
    }
    return std::make_shared<LoopService>(activeObject, std::move(service));
}

} // namespace kesa
