#include <kesa/Response.h>
#include <kesa/mimetypes.h>

#include <utility>

namespace kesa {

Response::Response(unsigned short status, Payload payload, const std::shared_ptr<GenericObject>& headers)
    : m_status(status), m_payload(std::move(payload)), m_headers(headers ? *headers : GenericObject())
{}

Response::Response(unsigned short status, Payload payload, std::shared_ptr<const IHeaderSource> headers)
    : m_status(status), m_payload(std::move(payload)), m_arrived(std::move(headers))
{}

Response Response::createErrorResponse(unsigned short status, std::string_view text)
{
    if (text.empty()) {
        return Response(status, Payload());
    }
    return Response(status, Payload::createFromString(std::string(text), mimetypes::TEXT));
}

Response Response::createTimeoutResponse(std::chrono::milliseconds limit)
{
    return createErrorResponse(504, "no answer within " + std::to_string(limit.count()) + " ms");
}

std::string Response::getErrorMessageWithCode(const Response& response)
{
    std::string text = std::to_string(response.m_status);
    if (const std::string message = response.getErrorMessage(); !message.empty()) {
        text.append(": ").append(message);
    }
    return text;
}

std::string Response::getErrorMessage() const
{
    // A service may end a stream with any body; only what a person can read is a message.
    switch (mimetypes::typename2id(m_payload.getMimeType())) {
    case mimetypes::MimeTypeID::eTEXT:
    case mimetypes::MimeTypeID::eJSON:
        return std::string(m_payload.text());
    default:
        return m_payload.getMimeType().empty() ? std::string(m_payload.text()) : std::string();
    }
}

const GenericObject& Response::getHeaders() const
{
    return m_arrived ? m_arrived->headers() : m_headers;
}

void Response::setHeader(std::string_view name, util::config::Value value)
{
    if (m_arrived) {
        m_headers = m_arrived->headers();
        m_arrived.reset();
    }
    m_headers.set(name, std::move(value));
}

} // namespace kesa
