#include "AnswerWriter.h"
#include "TrackRequest.h"

#include <kesa/IKesaApi.h>
#include <kesa/commands.h>
#include <kesa/mimetypes.h>
#include <kesa/serviceregistry/ServiceRegistryService.h>
#include <kesa/tracing.h>
#include <obr/visible.h>

namespace kesa::serviceregistry {
namespace {

const Channel CHANNEL("KESA_SERVICEREGISTRY_SERVICEREGISTRYSERVICE");

/// The route of one service, which is addressed by its own path.
constexpr const char* SERVICE_ROUTE = "**";
constexpr const char* WILDCARD = "**";

/// Where each service is asked for its resources, and what a registry answers: docs/protocol.md has the form.
constexpr std::string_view RESOURCES_PATH = "/.well-known/resources";
constexpr std::string_view RESOURCES =
    R"([{"answers":"stream","command":"retrieve","resource":"/","text":"the services that match a query, and each change"},)"
    R"({"answers":"single","command":"explain","resource":"/**","text":"what is known of a service's path"},)"
    R"({"answers":"stream","command":"insert","resource":"/**","text":"a service is there for as long as the request"},)"
    R"({"answers":"stream","command":"retrieve","resource":"/**","text":"one service, and each change"}])";

enum CommandId { eRETRIEVE, eUPDATE, eDELETE, eINSERT };

bool report(int number, std::string_view first, std::string_view second = {})
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, number, first, second);
}

void traceFailure(const Request& request, const std::string& reason)
{
    KESA_TRACE(CHANNEL, 4, "[actionRequest] failed: cmd='%s' path='%s' reason='%s'",
               obr::glimpse(request.getCommand()).c_str(), obr::glimpse(request.getPath()).c_str(),
               obr::glimpse(reason).c_str());
}

/// One request on its way to the registry. Each step that answers the request with an error returns true, and leaves
/// the error pending.
class Dispatch {
public:
    Dispatch(IServiceRegistry& registry, const Request& request, std::unique_ptr<IResponseHandler<Response>>& handler,
             const std::string& dispatch)
        : m_registry(registry), m_request(request), m_handler(handler), m_dispatch(dispatch)
    {}

    bool route()
    {
        if (m_request.getCommand() == IServiceRegistry::EXPLAIN) {
            return explain();
        }
        switch (commands::toId(m_request.getCommand())) {
        case eRETRIEVE:
            return m_request.getPath() == ServiceRegistryService::ROOT ? query()
                   : m_request.getPath() == RESOURCES_PATH             ? tellResources()
                                                                       : track();
        case eINSERT:
            return registerService();
        case eUPDATE:
        case eDELETE:
            return refuse(404, 14, m_request.getCommand(), m_request.getPath());
        default:
            return refuse(400, 14, m_request.getCommand(), m_request.getPath());
        }
    }

    void* handle() const { return m_handle; }

private:
    bool query()
    {
        Query query;
        if (readBody(query)) {
            return true;
        }
        auto answers = answersOf<QueryRegistryResponseHandler, std::vector<RegistryUpdate>>();
        m_handle = m_registry.queryRegistry(std::move(answers), query);
        return false;
    }

    bool tellResources()
    {
        Response answer(200, Payload::createFromString(std::string(RESOURCES), std::string(mimetypes::JSON)));
        headers::appendRequestInfo(answer, RequestInfo(m_request));
        if (!m_handler->onNext(answer)) {
            m_handler->onCompleted();
        }
        return false;
    }

    bool track()
    {
        Path service;
        TrackRequest body;
        if (findService("ServiceRegistryService::trackService", service) || readBody(body)) {
            return true;
        }
        auto answers = answersOf<TrackServiceResponseHandler, RegistryUpdate>();
        m_handle = m_registry.trackService(std::move(answers), service, body.includeMetaInfo);
        return false;
    }

    bool registerService()
    {
        Path service;
        ServiceDef serviceDef;
        if (findService("ServiceRegistryService::registerService", service) || readBody(serviceDef)) {
            return true;
        }
        auto answers = answersOf<RegisterServiceResponseHandler, ServiceDef>();
        m_handle = m_registry.registerService(std::move(answers), service, serviceDef);
        return false;
    }

    bool explain()
    {
        Path service;
        GenericObject body;
        if (findService("ServiceRegistryService::explain", service) || readBody(body)) {
            return true;
        }
        auto answers = answersOf<ExplainResponseHandler, GenericObject>();
        m_handle = m_registry.explain(std::move(answers), service,
                                      std::string(body[IServiceRegistry::EXPLAIN_FOR].stringView()));
        return false;
    }

    /// The service that the path of the request names.
    bool findService(const char* operation, Path& service)
    {
        const auto index = m_dispatch.empty() ? nullopt : Path::indexIntoPathFromPattern(SERVICE_ROUTE, WILDCARD);
        if (!index || m_request.getPath() == ServiceRegistryService::ROOT) {
            return refuse(400, 15, operation);
        }
        service = Path(Path::makeAbsolute(Path::subpath(m_request.getPath(), *index)));
        return false;
    }

    /// A request without a body asks with the defaults.
    template <class Body>
    bool readBody(Body& body)
    {
        const Payload& payload = m_request.getPayload();
        return !payload.isEmpty() && serializer::readPayload(payload, body) && answerPendingError(400);
    }

    bool refuse(unsigned short status, int number, std::string_view first, std::string_view second = {})
    {
        report(number, first, second);
        return answerPendingError(status);
    }

    bool answerPendingError(unsigned short status)
    {
        m_handler->onError(Response::createErrorResponse(status, obr::ErrorStorage::reason()));
        return true;
    }

    /// Where the registry's answers go. What the registry does not take ends the request by being destroyed.
    template <class Writer, class T>
    std::unique_ptr<IResponseHandler<T>> answersOf()
    {
        return std::make_unique<Writer>(std::move(m_handler), m_request);
    }

    IServiceRegistry& m_registry;
    const Request& m_request;
    std::unique_ptr<IResponseHandler<Response>>& m_handler;
    const std::string& m_dispatch;
    void* m_handle = IKesaApi::UNDEFINED_REQUEST_HANDLE;
};

} // namespace

ServiceRegistryService::ServiceRegistryService(IServiceRegistry* registry) : m_registry(registry) {}

void* ServiceRegistryService::actionRequest(const Request& request,
                                            std::unique_ptr<IResponseHandler<Response>>&& handler,
                                            const std::string& dispatch)
{
    const std::string& path = request.getPath();
    if (path != ROOT && !Path::matches(path, SERVICE_ROUTE)) {
        report(3, request.getCommand(), path);
        traceFailure(request, {});
        handler->onError(Response::createErrorResponse(404, obr::ErrorStorage::reason()));
        obr::ErrorStorage::ack();
        return IKesaApi::UNDEFINED_REQUEST_HANDLE;
    }
    Dispatch work(*m_registry, request, handler, dispatch);
    if (work.route()) {
        traceFailure(request, obr::ErrorStorage::reason());
    }
    obr::ErrorStorage::ack();
    return work.handle();
}

void ServiceRegistryService::cancelRequest(void* handle)
{
    m_registry->cancelRequest(handle);
}

} // namespace kesa::serviceregistry
