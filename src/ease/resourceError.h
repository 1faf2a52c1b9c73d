#ifndef KESA_EASE_RESOURCEERROR_H
#define KESA_EASE_RESOURCEERROR_H

#include <kesa/Path.h>
#include <kesa/Request.h>
#include <kesa/Response.h>

#include <optional>
#include <string>

namespace kesa::detail {

/// 400 for a request that asks for no resource, which no service has. Nothing for one that may be sent; an empty
/// resource is the service itself.
inline std::optional<Response> resourceError(const Request& request)
{
    const std::string& resource = request.getPath();
    return resource.empty() || resource.front() == '/'
               ? std::nullopt
               : std::optional(Response::createErrorResponse(400, Path::complaintAbout(resource)));
}

} // namespace kesa::detail

#endif
