#include <kesa/serviceregistry/ServiceRegistryPexService.h>
#include <kesa/serviceregistry/ServiceRegistryService.h>

#include <map>
#include <string>
#include <utility>

namespace kesa::serviceregistry {

ServiceRegistryPexService::ServiceRegistryPexService(std::unique_ptr<IServiceRegistry>&& registry)
    : m_registry(std::move(registry))
{
    std::map<std::string, std::unique_ptr<IResourceHandler>> handlers;
    if (m_registry) {
        handlers.emplace(ServiceRegistryService::ROOT, std::make_unique<ServiceRegistryService>(m_registry.get()));
    }
    m_service = std::make_shared<StaticComposedKesaService>(std::move(handlers));
}

IServiceRegistry* ServiceRegistryPexService::main()
{
    return m_registry.get();
}

std::shared_ptr<StaticComposedKesaService>
ServiceRegistryPexService::getService(const std::shared_ptr<ServiceRegistryPexService>& service)
{
    return service ? std::shared_ptr<StaticComposedKesaService>(service, service->m_service.get()) : nullptr;
}

} // namespace kesa::serviceregistry
