#ifndef KESA_EASE_REQUESTERROR_H
#define KESA_EASE_REQUESTERROR_H

#include <kesa/Response.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace kesa {

/// Thrown out of a route's function it ends the request with this error, and nothing is traced: the client is at fault,
/// or nobody.
class KESA_API RequestError : public std::runtime_error {
public:
    /// `status` is 400 or above; one below counts as any other exception does.
    RequestError(unsigned short status, const std::string& text) : std::runtime_error(text), m_status(status) {}

    /// An error that says more than a text: one with headers such as "retry-after-ms" or a body of its own, or another
    /// service's that is passed on. The same goes for its status.
    explicit RequestError(Response error)
        : std::runtime_error(error.getErrorMessage()), m_status(error.getStatus()),
          m_response(std::make_shared<const Response>(std::move(error)))
    {}

    unsigned short status() const noexcept { return m_status; }
    /// What the client is told.
    Response response() const { return m_response ? *m_response : Response::createErrorResponse(m_status, what()); }

private:
    unsigned short m_status;
    std::shared_ptr<const Response> m_response; ///< null: a text is all
};

} // namespace kesa

#endif
