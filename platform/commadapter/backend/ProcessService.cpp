#include "backend/ProcessService.h"

#include <gates/serviceRules.h>
#include <kesa/commands.h>
#include <kesa/mimetypes.h>
#include <obr/ErrorStorage.h>
#include <util/config/JSONParser.h>

#include <utility>

namespace kesa::commadapter {

ProcessService::ProcessService(std::function<std::string()> describe,
                               std::function<Response(const util::config::Value& question)> explainAccess)
    : m_describe(std::move(describe)), m_explainAccess(std::move(explainAccess))
{}

Response ProcessService::answer(const Request& request) const
{
    const bool isMay = request.getPath() == MAY;
    if (!isMay && !request.getPath().empty() && request.getPath() != "/") {
        return Response::createErrorResponse(404, "a process has two resources here, \"/\" and \"/may\"");
    }
    if (request.getCommand() != commands::RETRIEVE) {
        return Response::createErrorResponse(405, "a process only tells what it is: retrieve \"/\"");
    }
    if (!isMay) {
        return Response(200, Payload::createFromString(m_describe(), mimetypes::JSON));
    }
    if (request.getPayload().size() > access::MOST_OF_QUESTION) {
        return Response::createErrorResponse(413, access::QUESTION_TOO_LONG);
    }
    util::config::Value question;
    if (util::config::JSONParser().parseString(std::string(request.getPayload().text()), question)) {
        return Response::createErrorResponse(400, "the question is no JSON: " + obr::ErrorStorage::takeReason());
    }
    return m_explainAccess(question);
}

void* ProcessService::request(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler)
{
    const auto held = std::move(handler);
    const Response response = answer(request);
    if (response.getStatus() >= 400) {
        held->onError(response);
    } else {
        static_cast<void>(held->onNext(response));
        held->onCompleted();
    }
    return UNDEFINED_REQUEST_HANDLE;
}

} // namespace kesa::commadapter
