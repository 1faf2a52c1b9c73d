#ifndef KESA_SERVICEREGISTRY_SERVICEREGISTRYPEXSERVICE_H
#define KESA_SERVICEREGISTRY_SERVICEREGISTRYPEXSERVICE_H

#include <kesa/StaticComposedKesaService.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <memory>

namespace kesa::serviceregistry {

/// A registry implementation as a service object.
class KESA_API ServiceRegistryPexService final : public ServiceRegistryPex {
public:
    /// Null: a service without resources.
    explicit ServiceRegistryPexService(std::unique_ptr<IServiceRegistry>&& registry);

    IServiceRegistry* main() override;

    /// The service object of `service`, for registering it. It owns `service`, so that the registry lives as long as
    /// anybody may call it.
    static std::shared_ptr<StaticComposedKesaService>
    getService(const std::shared_ptr<ServiceRegistryPexService>& service);

private:
    std::unique_ptr<IServiceRegistry> m_registry;
    std::shared_ptr<StaticComposedKesaService> m_service;
};

} // namespace kesa::serviceregistry

#endif
