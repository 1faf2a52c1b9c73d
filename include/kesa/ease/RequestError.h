#ifndef KESA_EASE_REQUESTERROR_H
#define KESA_EASE_REQUESTERROR_H

#include <obr/api.h>

#include <stdexcept>
#include <string>

namespace kesa {

/// Thrown out of a route's function it ends the request with this status and text, and nothing is traced: the client is
/// at fault, or nobody.
class KESA_API RequestError : public std::runtime_error {
public:
    /// `status` is 400 or above; one below counts as any other exception does.
    RequestError(unsigned short status, const std::string& text) : std::runtime_error(text), m_status(status) {}

    unsigned short status() const noexcept { return m_status; }

private:
    unsigned short m_status;
};

} // namespace kesa

#endif
