#include <kesa/serviceregistry/make_copyable_function.h>
#include <kesa/serviceregistry/registerServiceRegistryPex.h>

#include <utility>

namespace kesa::serviceregistry {
namespace {

using runtime::v02::IRuntimeRegistry;

Disposable registerAs(ServiceDef::TypeEnum type, const std::string& path, IRuntimeRegistry& runtime,
                      const std::shared_ptr<ServiceRegistryPexService>& service, const GenericObject& metainfo,
                      std::unique_ptr<IResponseHandler<ServiceDef>>&& handler)
{
    const auto api = ServiceRegistryPexService::getService(service);
    const std::vector<std::string> versions{ServiceRegistryPex::SERVICE_VERSION};
    Disposable registration = runtime.registerService(path, api, type, versions, metainfo, std::move(handler));
    return Disposable(make_copyable_function([api, registration = std::move(registration)]() mutable {
        // Requests end before the service goes, so that its clients hear of it whatever becomes of the connection.
        if (api) {
            api->endOutstandingRequests();
        }
        registration.dispose();
    }));
}

} // namespace

Disposable registerServiceRegistryPex(IRuntimeRegistry* runtime,
                                      const std::shared_ptr<ServiceRegistryPexService>& service,
                                      const GenericObject& metainfo,
                                      std::unique_ptr<IResponseHandler<ServiceDef>>&& handler,
                                      const std::string& suffix)
{
    if (runtime == nullptr) {
        if (handler) {
            handler->onError(Response::createErrorResponse(400, "the runtime is null"));
        }
        return {};
    }
    return registerAs(ServiceDef::TypeEnum::pex, Path::join(ServiceRegistryPex::SERVICE_PATH, suffix), *runtime,
                      service, metainfo, std::move(handler));
}

Disposable registerServiceRegistryPex(IRuntimeRegistry* runtime,
                                      const std::shared_ptr<ServiceRegistryPexService>& service,
                                      std::unique_ptr<IResponseHandler<ServiceDef>>&& handler,
                                      const std::string& suffix)
{
    return registerServiceRegistryPex(runtime, service, GenericObject(), std::move(handler), suffix);
}

Disposable registerRegistry(IRuntimeRegistry& runtime, const std::shared_ptr<ServiceRegistryPexService>& service,
                            const GenericObject& metainfo, std::unique_ptr<IResponseHandler<ServiceDef>>&& handler)
{
    return registerAs(ServiceDef::TypeEnum::registry, ServiceRegistryPex::SERVICE_PATH, runtime, service, metainfo,
                      std::move(handler));
}

} // namespace kesa::serviceregistry
