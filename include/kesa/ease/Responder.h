#ifndef KESA_EASE_RESPONDER_H
#define KESA_EASE_RESPONDER_H

#include <kesa/OpenRequest.h>
#include <kesa/Payload.h>
#include <kesa/Response.h>

#include <memory>
#include <string_view>
#include <utility>

namespace kesa {

/// Answers one request, once or as a stream. Copies answer the same request; when the last one goes and the request has
/// not ended, the client is told 503. After the end, and after the client has cancelled, every call is without effect.
/// Any thread.
class Responder {
public:
    explicit Responder(std::shared_ptr<OpenRequest> request) noexcept : m_request(std::move(request)) {}

    /// The only answer. True when it was not accepted, see `next`.
    bool answer(Payload payload) const { return answer(Response(200, std::move(payload))); }
    /// The same; one with a status of 400 and above is an error.
    bool answer(const Response& response) const
    {
        if (response.getStatus() >= 400) {
            m_request->onError(response);
            return false;
        }
        const bool isRefused = next(response);
        complete();
        return isRefused;
    }
    /// One answer of a stream. True when it was not accepted: the stream has ended, or ends now, with what the client
    /// is told: 503 when it is too slow, 413 when the answer is larger than a message between the two may be, 500 when
    /// it has a header or text without a form on the wire.
    bool next(Payload payload) const { return next(Response(200, std::move(payload))); }
    bool next(const Response& response) const { return m_request->onNext(response); }
    /// Ends the stream.
    void complete() const { m_request->onCompleted(); }
    /// Ends it with an error.
    void fail(unsigned short status, std::string_view text) const
    {
        m_request->onError(Response::createErrorResponse(status, text));
    }
    /// Nobody waits for answers any more: the client has cancelled, or is gone, or the stream has ended.
    bool isCancelled() const { return !m_request->isOpen(); }

private:
    std::shared_ptr<OpenRequest> m_request;
};

} // namespace kesa

#endif
