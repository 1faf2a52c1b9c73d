#include "TrackRequest.h"

#include <kesa/commands.h>
#include <kesa/core/PayloadConversion.h>
#include <kesa/headers.h>
#include <kesa/responsehandlers/MappingResponseHandler.h>
#include <kesa/serviceregistry/ServiceRegistryClient.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <kesa/tracing.h>

#include <utility>

namespace kesa::serviceregistry {
namespace {

/// One service is addressed inside the registry by its own path.
std::string requestPathOf(const Path& service)
{
    return Path::replacePattern("**", service);
}

} // namespace

ServiceRegistryClient::ServiceRegistryClient(IKesaApi* api, std::string mimeType)
    : m_api(api), m_mimeType(std::move(mimeType))
{}

void* ServiceRegistryClient::queryRegistry(std::unique_ptr<IResponseHandler<std::vector<RegistryUpdate>>>&& handler,
                                           const Query& query)
{
    return send(commands::RETRIEVE, PATH, query, "std::vector<RegistryUpdate>", std::move(handler));
}

void* ServiceRegistryClient::registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                                             const ServiceDef& serviceDef)
{
    return send(commands::INSERT, requestPathOf(path), serviceDef, "ServiceDef", std::move(handler));
}

void* ServiceRegistryClient::trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                                          const optional<bool>& includeMetaInfo)
{
    return send(commands::RETRIEVE, requestPathOf(path), TrackRequest{includeMetaInfo}, "RegistryUpdate",
                std::move(handler));
}

void ServiceRegistryClient::cancelRequest(void* handle)
{
    m_api->cancel(handle);
}

void* ServiceRegistryClient::explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                                     const std::string& process)
{
    const GenericObject body = process.empty() ? GenericObject() : GenericObject{{EXPLAIN_FOR, process}};
    return send(EXPLAIN, requestPathOf(path), body, "GenericObject", std::move(handler),
                responsesemantics::SINGLE_RESPONSE);
}

template <class Answer, class Body>
void* ServiceRegistryClient::send(std::string_view command, const std::string& path, const Body& body,
                                  const char* answerName, std::unique_ptr<IResponseHandler<Answer>>&& handler,
                                  std::string_view semantic)
{
    auto payload = serializer::toPayload(body, m_mimeType);
    if (!payload) {
        handler->onError(Response::createErrorResponse(400, obr::ErrorStorage::reason()));
        obr::ErrorStorage::ack();
        return IKesaApi::UNDEFINED_REQUEST_HANDLE;
    }
    Request request(command, path, std::move(*payload));
    request.setMimeType(m_mimeType);
    headers::appendTracingInfo(request, ServiceRegistryPex::SERVICE_PATH, tracing::getTraceClientId());
    headers::appendAuthInfo(request);
    headers::appendResponseSemantic(request, semantic);
    // An answer that cannot be read is no reason to end the stream: the next one may be fine.
    auto answers = std::make_unique<responsehandlers::MappingResponseHandler<Response, Answer>>(
        std::move(handler), [answerName](const Response& response) {
            return serializer::fromPayload<Answer>(response.getPayload(), answerName);
        });
    return m_api->request(request, std::move(answers));
}

} // namespace kesa::serviceregistry
