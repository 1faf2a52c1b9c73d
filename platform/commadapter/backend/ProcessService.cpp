#include "backend/ProcessService.h"

#include <kesa/commands.h>
#include <kesa/mimetypes.h>

namespace kesa::commadapter {

ProcessService::ProcessService(std::function<std::string()> describe) : m_describe(std::move(describe)) {}

void* ProcessService::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    const auto held = std::move(handler);
    if (!request.getPath().empty() && request.getPath() != "/") {
        held->onError(Response::createErrorResponse(404, "a process has one resource here, \"/\""));
    } else if (request.getCommand() != commands::RETRIEVE) {
        held->onError(Response::createErrorResponse(405, "a process only tells what it is: retrieve \"/\""));
    } else {
        static_cast<void>(held->onNext(Response(200, Payload::createFromString(m_describe(), mimetypes::JSON))));
        held->onCompleted();
    }
    return UNDEFINED_REQUEST_HANDLE;
}

} // namespace kesa::commadapter
