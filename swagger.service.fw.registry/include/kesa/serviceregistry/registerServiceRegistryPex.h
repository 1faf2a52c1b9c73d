#ifndef KESA_SERVICEREGISTRY_REGISTERSERVICEREGISTRYPEX_H
#define KESA_SERVICEREGISTRY_REGISTERSERVICEREGISTRYPEX_H

#include <kesa/Disposable.h>
#include <kesa/GenericObject.h>
#include <kesa/runtime/v02/IRuntimeRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPexService.h>

#include <memory>
#include <string>

namespace kesa::serviceregistry {

/// Registers a registry implementation as an ordinary service of type `pex` below "/registry". Errors come as from
/// `IRuntimeRegistry::registerService`; without a runtime the handler is told 400 inside the call. Disposing ends its
/// outstanding requests with 503, then the registration; the service stays alive until then.
[[nodiscard]] KESA_API Disposable registerServiceRegistryPex(runtime::v02::IRuntimeRegistry* runtime,
                                                             const std::shared_ptr<ServiceRegistryPexService>& service,
                                                             const GenericObject& metainfo,
                                                             std::unique_ptr<IResponseHandler<ServiceDef>>&& handler,
                                                             const std::string& suffix = {});
[[nodiscard]] KESA_API Disposable registerServiceRegistryPex(runtime::v02::IRuntimeRegistry* runtime,
                                                             const std::shared_ptr<ServiceRegistryPexService>& service,
                                                             std::unique_ptr<IResponseHandler<ServiceDef>>&& handler,
                                                             const std::string& suffix = {});

/// Registers *the* registry in the process that hosts it: type `registry`, under the registry locators of the
/// configuration. It must be the first registration there, and the last to be disposed.
[[nodiscard]] KESA_API Disposable registerRegistry(runtime::v02::IRuntimeRegistry& runtime,
                                                   const std::shared_ptr<ServiceRegistryPexService>& service,
                                                   const GenericObject& metainfo,
                                                   std::unique_ptr<IResponseHandler<ServiceDef>>&& handler);

} // namespace kesa::serviceregistry

#endif
