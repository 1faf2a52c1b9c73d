#include "ClientImpl.h"

#include <kesa/headers.h>
#include <kesa/responsesemantics.h>

#include <algorithm>

namespace kesa {

namespace {

constexpr const char* WAIT = "; wait with whenConnected, or use kesa::connect";

} // namespace

/// Nothing of this is touched after a handler has been called: it may drop the client.
void* Client::Impl::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
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

void Client::Impl::cancel(void* handle)
{
    if (const auto open = m_requests.find(handle); open && open->withdraw()) {
        cancelWork(*open);
    }
}

void Client::Impl::cancelWork(const OpenRequest& open)
{
    const OpenRequest::Work work = open.work();
    std::unique_lock<std::mutex> lock(m_mutex);
    const Api api = work.part == m_apis ? m_api : nullptr; // an older one has ended its requests, or is about to
    lock.unlock();
    Asked{api, work.handle}.cancel();
}

Disposable Client::Impl::follow(Request request, std::unique_ptr<IResponseHandler<Response>>&& handler)
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
    const auto* const loop = dynamic_cast<const detail::HasLoopRoom*>(taken.get());
    auto room = loop == nullptr ? nullptr : loop->room;
    const auto follow = std::make_shared<Follow>(m_followName, std::move(request), m_following.open(std::move(taken)),
                                                 std::move(room), m_reasons);
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

void Client::Impl::addFollow(const std::shared_ptr<Follow>& follow)
{
    if (m_follows.size() >= m_swept) {
        m_follows.erase(std::remove_if(m_follows.begin(), m_follows.end(), [](const auto& f) { return f->isOver(); }),
                        m_follows.end());
        constexpr std::size_t FEW = 16;
        m_swept = std::max(2 * m_follows.size(), FEW);
    }
    m_follows.push_back(follow);
}

} // namespace kesa
