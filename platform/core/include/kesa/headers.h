#ifndef KESA_HEADERS_H
#define KESA_HEADERS_H

#include <kesa/Duration.h>
#include <kesa/Request.h>
#include <kesa/RequestInfo.h>
#include <kesa/Response.h>

#include <functional>
#include <string>
#include <string_view>

namespace kesa::headers {

inline constexpr std::string_view REQUEST_COMMAND = "$request-command";
inline constexpr std::string_view SERVICE_PATH = "$service-path";
inline constexpr std::string_view REQUEST_PATH = "$request-path";
/// Who sent the request, as the receiving side knows it; what a sender writes there is replaced.
inline constexpr std::string_view CLIENT_ID = "$client-id";
inline constexpr std::string_view ACCEPT = "$accept";
inline constexpr std::string_view AUTH_TOKEN = "$auth-token";
inline constexpr std::string_view RESPONSE_SEMANTIC = "$response-semantic";
/// The time limit of a request: how many milliseconds are left for its answer, a whole number. See `IKesaApi::request`.
inline constexpr std::string_view TIMEOUT = "$timeout";
/// Names the sending process in traces; says nothing about who it is.
inline constexpr std::string_view TRACE_ID = "$trace-id";
/// Of an error: why, for people; beside its text, which may be empty. See `reasonOf`.
inline constexpr std::string_view REASON = "$reason";

KESA_API void appendTracingInfo(Request& request, std::string_view servicePath, std::string_view clientId);
/// Adds the process's token for the service of "$service-path", where it has one.
KESA_API void appendAuthInfo(Request& request);
KESA_API void appendResponseSemantic(Request& request, std::string_view semantic);
/// Limits the time of a request, from when it is issued; `left` is rounded up to whole milliseconds, and less than
/// nothing is nothing. A service hands on what is left to it with
///
///     appendTimeout(further, std::chrono::nanoseconds(*RequestContext::deadline() - comm::now()));
KESA_API void appendTimeout(Request& request, Duration left);

/// Answers the token for a service path; empty when there is none.
using AuthTokenProvider = std::function<std::string(std::string_view servicePath)>;
/// Installs where `appendAuthInfo` has its tokens from; empty: no tokens, as at start. Any thread.
KESA_API void setAuthTokenProvider(AuthTokenProvider provider);

/// Repeats command, path and service path of the request in the answer.
KESA_API void appendRequestInfo(Response& response, const RequestInfo& info);
/// An empty reason is none.
KESA_API void appendReason(Response& error, std::string_view reason);

} // namespace kesa::headers

#endif
