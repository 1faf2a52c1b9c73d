#include <kesa/OpenRequest.h>
#include <kesa/RequestContext.h>
#include <kesa/ease/on.h>

#include <optional>

namespace kesa {

namespace {

class LoopService final : public IKesaApi {
public:
    LoopService(const std::shared_ptr<comm::ActiveObject>& activeObject, std::shared_ptr<IKesaApi> service)
        : m_activeObject(activeObject), m_service(std::move(service))
    {}
    ~LoopService() override
    {
        for (const auto& open : m_requests.close()) {
            end(*open, open->withdraw(Response::createErrorResponse(503, "the service has ended")));
        }
        send([service = std::move(m_service)] {}); // it dies where it was called
    }

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) noexcept override
    {
        auto open = m_requests.open(std::move(handler));
        if (!open) {
            return UNDEFINED_REQUEST_HANDLE;
        }
        void* const handle = open->handle();
        std::optional<RequestContext> context;
        if (const RequestContext* const current = RequestContext::current()) {
            context = *current;
            context->stream = nullptr; // lives in this call only
        }
        // Not run, the event lets go of the request, which then answers 503 itself.
        send([service = m_service, request, context = std::move(context), deadline = RequestContext::deadline(),
              open = std::move(open)] {
            const RequestContext::Scope scope(context ? &*context : nullptr, deadline);
            serve(*service, request, *open);
        });
        return handle;
    }

    void cancel(void* handle) noexcept override
    {
        if (const auto open = m_requests.find(handle)) {
            end(*open, open->withdraw());
        }
    }

private:
    static void serve(IKesaApi& service, const Request& request, OpenRequest& open)
    {
        if (!open.isOpen()) {
            return; // cancelled before it began
        }
        void* const work = service.request(request, open.makeHandler());
        if (open.setWork({0, work})) {
            service.cancel(work);
        }
    }

    void end(const OpenRequest& open, bool isWithdrawn)
    {
        if (void* const work = open.work().handle; isWithdrawn && work != UNDEFINED_REQUEST_HANDLE) {
            send([service = m_service, work] { service->cancel(work); });
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
    std::shared_ptr<IKesaApi> m_service;
    OpenRequests m_requests;
};

} // namespace

std::shared_ptr<IKesaApi> on(const std::shared_ptr<comm::ActiveObject>& activeObject, std::shared_ptr<IKesaApi> service)
{
    return std::make_shared<LoopService>(activeObject, std::move(service));
}

} // namespace kesa
