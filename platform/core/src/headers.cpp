#include <kesa/headers.h>

#include "src/Replaceable.h"

#include <algorithm>

namespace kesa::headers {

namespace {

Replaceable<std::string(std::string_view)>& authTokenProvider()
{
    static auto& provider = *new Replaceable<std::string(std::string_view)>;
    return provider;
}

} // namespace

void setAuthTokenProvider(AuthTokenProvider provider)
{
    authTokenProvider().set(std::move(provider));
}

void appendTracingInfo(Request& request, std::string_view servicePath, std::string_view clientId)
{
    request.setHeader(SERVICE_PATH, servicePath);
    request.setHeader(TRACE_ID, clientId);
}

void appendAuthInfo(Request& request)
{
    const auto provider = authTokenProvider().get();
    if (!provider) {
        return;
    }
    std::string token = (*provider)(request.getHeaders()[SERVICE_PATH].stringView());
    if (!token.empty()) {
        request.setHeader(AUTH_TOKEN, std::move(token));
    }
}

void appendResponseSemantic(Request& request, std::string_view semantic)
{
    request.setHeader(RESPONSE_SEMANTIC, semantic);
}

void appendTimeout(Request& request, Duration left)
{
    const auto whole =
        std::chrono::ceil<std::chrono::milliseconds>(std::max(left.nanoseconds(), std::chrono::nanoseconds::zero()));
    if (!request.getHeaders().empty()) {
        request.setHeader(TIMEOUT, whole.count());
        return;
    }
    // A thread that asks again and again mostly waits equally long: its requests share their headers.
    thread_local GenericObject before;
    if (before[TIMEOUT] != whole.count()) {
        before = {{std::string(TIMEOUT), whole.count()}};
    }
    request.setHeaders(before);
}

void appendRequestInfo(Response& response, const RequestInfo& info)
{
    response.setHeader(REQUEST_COMMAND, info.getCommand());
    response.setHeader(SERVICE_PATH, info.getServicePath());
    response.setHeader(REQUEST_PATH, info.getPath());
}

void appendReason(Response& error, std::string_view reason)
{
    if (!reason.empty()) {
        error.setHeader(REASON, reason);
    }
}

} // namespace kesa::headers
