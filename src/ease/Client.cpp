#include "ClientImpl.h"
#include "isGiven.h"
#include "resourceError.h"

#include <kesa/ease/use.h>

namespace kesa {

using runtime::v02::IRuntimeRegistry;

void Client::Impl::end()
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

Client::Impl::Follows Client::Impl::takeAll(std::vector<Asked>& left)
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
    if (!detail::isGiven(handler, "kesa::Client::request is given no handler: give it kesa::handler<kesa::Response>")) {
        return UNDEFINED_REQUEST_HANDLE;
    }
    if (const auto error = detail::resourceError(request)) {
        handler->onError(*error);
        return UNDEFINED_REQUEST_HANDLE;
    }
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
    if (!detail::isGiven(handler, "kesa::Client::onChange is given no handler: give it a function")) {
        return;
    }
    const auto impl = m_impl;
    impl->onChange(std::move(handler));
}

Disposable Client::follow(Request request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    if (!detail::isGiven(handler, "kesa::Client::follow is given no handler: give it kesa::handler<kesa::Response>")) {
        return {};
    }
    if (const auto error = detail::resourceError(request)) {
        const auto refused = std::move(handler);
        refused->onError(*error);
        return {};
    }
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

void Client::traceNoFollowing()
{
    m_impl->traceNoFollowing();
}

std::string Client::reasonWhenAsked(bool hasRegistryAnswered) const
{
    return m_impl->reason(hasRegistryAnswered);
}

} // namespace kesa
