#ifndef KESA_SERVICEREGISTRY_SERVICEREGISTRYPEXCLIENT_H
#define KESA_SERVICEREGISTRY_SERVICEREGISTRYPEXCLIENT_H

#include <kesa/IKesaApi.h>
#include <kesa/runtime/v02/ResolveResult.h>
#include <kesa/serviceregistry/ServiceRegistryClient.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <memory>
#include <string>

namespace kesa::serviceregistry {

/// The client of a registry service; keeps its client object alive.
class KESA_API ServiceRegistryPexClient final : public ServiceRegistryPex {
public:
    /// The definition then names the path "/unknown".
    ServiceRegistryPexClient(std::shared_ptr<IKesaApi> api, const std::string& mimeType);
    ServiceRegistryPexClient(std::shared_ptr<IKesaApi> api, const ServiceDef& definition, const std::string& mimeType);
    /// Talks in the first known format of the resolved service, else in the default format.
    explicit ServiceRegistryPexClient(const runtime::v02::ResolveResult<std::shared_ptr<IKesaApi>>& result);

    IServiceRegistry* main() override;
    const ServiceDef& getDefinition() const;

private:
    ServiceRegistryClient m_client;
    std::shared_ptr<IKesaApi> m_api;
    ServiceDef m_definition;
};

} // namespace kesa::serviceregistry

#endif
