#include <kesa/OpenRequest.h>
#include <kesa/StaticComposedKesaService.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace kesa {

namespace {

bool isBelow(std::string_view path, std::string_view root) noexcept
{
    if (root.back() == '/') {
        root.remove_suffix(1);
    }
    return path.substr(0, root.size()) == root &&
           (path.size() == root.size() || path[root.size()] == '/' || root.empty());
}

} // namespace

class StaticComposedKesaService::Impl {
public:
    explicit Impl(std::map<std::string, std::unique_ptr<IResourceHandler>>&& handlers)
    {
        for (auto& [root, handler] : handlers) {
            if (handler) {
                m_parts.push_back({root.empty() ? "/" : root, std::move(handler)});
            }
        }
        std::stable_sort(m_parts.begin(), m_parts.end(),
                         [](const Part& a, const Part& b) { return a.root.size() > b.root.size(); });
    }

    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
    {
        const auto part = std::find_if(m_parts.begin(), m_parts.end(),
                                       [&](const Part& p) { return isBelow(request.getPath(), p.root); });
        if (part == m_parts.end()) {
            handler->onError(Response::createErrorResponse(404, "no resource at '" + request.getPath() + "'"));
            return UNDEFINED_REQUEST_HANDLE;
        }
        const auto open = m_requests.open(std::move(handler));
        if (!open) {
            return UNDEFINED_REQUEST_HANDLE;
        }
        const OpenRequest::Work work{static_cast<std::size_t>(part - m_parts.begin()), serve(*part, request, open)};
        if (open->setWork(work)) {
            cancelWork(work);
        }
        return open->handle();
    }

    void cancel(void* handle)
    {
        const auto open = m_requests.find(handle);
        if (open && open->withdraw()) {
            cancelWork(open->work());
        }
    }

    void end()
    {
        // Every client is told before anything is cancelled: what the end of one request means to the others is then
        // written to nobody.
        const Response ended = Response::createErrorResponse(503, "the service has ended");
        std::vector<std::shared_ptr<OpenRequest>> withdrawn;
        for (auto& open : m_requests.close()) {
            if (open->withdraw(ended)) {
                withdrawn.push_back(std::move(open));
            }
        }
        for (const auto& open : withdrawn) {
            cancelWork(open->work());
        }
    }

private:
    struct Part {
        std::string root;
        std::unique_ptr<IResourceHandler> handler;
    };

    /// A handler that is left in the pointer dies here, which ends its request.
    static void* serve(const Part& part, const Request& request, const std::shared_ptr<OpenRequest>& open)
    {
        std::unique_ptr<IResponseHandler<Response>> answers = open->makeHandler();
        void* const handle = part.handler->actionRequest(request, std::move(answers), part.root);
        if (answers && open->isOpen()) {
            open->onError(Response::createErrorResponse(503, "the service did not take the request"));
        }
        return handle;
    }

    void cancelWork(const OpenRequest::Work& work)
    {
        if (work.handle != UNDEFINED_REQUEST_HANDLE) {
            m_parts[work.part].handler->cancelRequest(work.handle);
        }
    }

    std::vector<Part> m_parts; ///< the longest root first
    OpenRequests m_requests;
};

StaticComposedKesaService::StaticComposedKesaService(std::map<std::string, std::unique_ptr<IResourceHandler>> handlers)
    : m_impl(std::make_shared<Impl>(std::move(handlers)))
{}

StaticComposedKesaService::~StaticComposedKesaService()
{
    m_impl->end();
}

void* StaticComposedKesaService::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    return m_impl->request(request, std::move(handler));
}

void StaticComposedKesaService::cancel(void* handle)
{
    m_impl->cancel(handle);
}

void StaticComposedKesaService::endOutstandingRequests()
{
    m_impl->end();
}

} // namespace kesa
