#ifndef KESA_EASE_RESOURCES_H
#define KESA_EASE_RESOURCES_H

#include <kesa/IResponseHandler.h>
#include <kesa/Payload.h>
#include <kesa/Request.h>
#include <kesa/Response.h>
#include <kesa/ease/RouteInfo.h>
#include <kesa/optional.h>

#include <string_view>
#include <vector>

/// How a service says which resources it has: it answers "retrieve" at `PATH` with a list. `ResourceHandler` does so by
/// itself; a service of another kind does it with two lines in its `request`:
///
///     if (kesa::resources::areAskedBy(request)) {
///         return kesa::resources::tell(*handler, {{"/volume", kesa::commands::UPDATE, kesa::about("in percent")}});
///     }
///
/// `kesactl show --resources` prints the list. A service may as well do nothing of this: then it does not say.
namespace kesa::resources {

/// Inside of each service. Well-known to all members: docs/protocol.md has what the answer is.
inline constexpr std::string_view PATH = "/.well-known/resources";

/// A resource under one command. The characters are the caller's.
struct Resource {
    /// Inside of the service. A segment "{name}" stands for any one segment, "**" at the end for all further, also
    /// none.
    std::string_view path;
    std::string_view command;
    RouteInfo info = {};
};

/// Whether a service is to say which resources it has.
KESA_API bool areAskedBy(const Request& request) noexcept;

/// The list as an answer, sorted. Nothing, with a reason in `obr::ErrorStorage`, when a text in it is not UTF-8.
KESA_API optional<Payload> describe(std::vector<Resource> resources);

/// Answers a request with the list, and ends it, within this call. Answers that there is nothing to cancel, as
/// `IKesaApi::request` does.
KESA_API void* tell(IResponseHandler<Response>& handler, std::vector<Resource> resources);

} // namespace kesa::resources

#endif
