#include <kesa/runtime/mimetype.h>
#include <kesa/serviceregistry/ServiceRegistryPexClient.h>

#include <utility>

namespace kesa::serviceregistry {

ServiceRegistryPexClient::ServiceRegistryPexClient(std::shared_ptr<IKesaApi> api, const std::string& mimeType)
    : ServiceRegistryPexClient(std::move(api), ServiceDef(Path("/unknown"), ServiceDef::TypeEnum::pex, {}, {}),
                               mimeType)
{}

ServiceRegistryPexClient::ServiceRegistryPexClient(std::shared_ptr<IKesaApi> api, const ServiceDef& definition,
                                                   const std::string& mimeType)
    : m_client(api.get(), mimeType), m_api(std::move(api)), m_definition(definition)
{}

ServiceRegistryPexClient::ServiceRegistryPexClient(const runtime::v02::ResolveResult<std::shared_ptr<IKesaApi>>& result)
    : ServiceRegistryPexClient(result.api, result.serviceDef, runtime::getMimeType(result.serviceDef))
{}

IServiceRegistry* ServiceRegistryPexClient::main()
{
    return &m_client;
}

const ServiceDef& ServiceRegistryPexClient::getDefinition() const
{
    return m_definition;
}

} // namespace kesa::serviceregistry
