#ifndef KESA_TESTS_SUPPORT_PLAYEDSERVICE_H
#define KESA_TESTS_SUPPORT_PLAYEDSERVICE_H

#include <kesa/IKesaApi.h>
#include <kesa/Payload.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kesa::test {

/// Keeps what it was asked, and answers as the test says. Between a client and a service it passes on what it keeps.
class PlayedService final : public IKesaApi {
public:
    explicit PlayedService(std::shared_ptr<IKesaApi> service = nullptr) : m_service(std::move(service)) {}
    void* request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler) override
    {
        requests.push_back(request);
        if (m_service) {
            return m_service->request(request, std::move(handler));
        }
        handlers.push_back(std::move(handler));
        return reinterpret_cast<void*>(handlers.size());
    }
    void cancel(void* handle) override
    {
        m_service ? m_service->cancel(handle) : handlers[reinterpret_cast<std::size_t>(handle) - 1].reset();
    }
    void value(const std::string& text) const
    {
        handlers.back()->onNext(Response(200, Payload::createFromString(text, "plain/text")));
    }
    void end(unsigned short status) const { handlers.back()->onError(Response::createErrorResponse(status)); }
    std::size_t open() const
    {
        return static_cast<std::size_t>(
            std::count_if(handlers.begin(), handlers.end(), [](const auto& handler) { return handler != nullptr; }));
    }

    std::vector<Request> requests;
    std::vector<std::unique_ptr<IResponseHandler<Response>>> handlers;

private:
    const std::shared_ptr<IKesaApi> m_service;
};

} // namespace kesa::test

#endif
