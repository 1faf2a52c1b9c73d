#ifndef KESA_RESPONSE_H
#define KESA_RESPONSE_H

#include <kesa/GenericObject.h>
#include <kesa/IHeaderSource.h>
#include <kesa/Payload.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace kesa {

/// One answer of a service, or the error that ends a stream.
///
/// Statuses Kesa itself makes: 400 bad request or pattern, 404 no locator that can be reached, 409 taken or refused
/// here, 413 too large to send, 503 all that may be otherwise in a moment, 504 not answered within its time limit.
class KESA_API Response {
public:
    Response() = default;
    Response(unsigned short status, Payload payload, const std::shared_ptr<GenericObject>& headers = nullptr);
    /// A response that arrived: its headers are decoded at the first question for them.
    Response(unsigned short status, Payload payload, std::shared_ptr<const IHeaderSource> headers);

    /// An error; its text, when not empty, is the payload ("plain/text").
    static Response createErrorResponse(unsigned short status, std::string_view text = {});
    /// The error of a request that has not been answered within its time limit: 504, "no answer within 2000 ms".
    static Response createTimeoutResponse(std::chrono::milliseconds limit);
    /// "409: service already registered", or "409" without a text. `reasonOf` often knows more.
    static std::string getErrorMessageWithCode(const Response& response);

    unsigned short getStatus() const noexcept { return m_status; }
    const Payload& getPayload() const noexcept { return m_payload; }
    /// The text of an error; empty when there is none.
    std::string getErrorMessage() const;
    /// The headers; empty when there are none.
    const GenericObject& getHeaders() const;
    /// Replaces a header of that name. Copies made before keep theirs.
    void setHeader(std::string_view name, util::config::Value value);

private:
    unsigned short m_status = 200;
    Payload m_payload;
    GenericObject m_headers;
    std::shared_ptr<const IHeaderSource> m_arrived; // the headers, while nobody has changed them
};

} // namespace kesa

#endif
