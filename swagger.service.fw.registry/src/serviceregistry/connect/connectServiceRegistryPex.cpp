#include <kesa/responsehandlers/MappingResponseHandler.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/connectServiceRegistryPex.h>
#include <kesa/url.h>

#include <utility>

namespace kesa::serviceregistry {
namespace {

using runtime::v02::KesaRuntime;
using Api = std::shared_ptr<IKesaApi>;
using Resolved = runtime::v02::ResolveResult<Api>;
using Client = optional<std::shared_ptr<ServiceRegistryPexClient>>;

bool useBypass(const std::string& path)
{
    return KesaRuntime::isRunning() && KesaRuntime::getInstance()->getConfigAccessor().useBypass(path);
}

Resolved resolvedOf(const Resolved& result)
{
    return result;
}

Resolved resolvedOf(const Api& api)
{
    return Resolved(ServiceDef(), api);
}

/// A handler of what the runtime resolves. Each value becomes a client or its absence, and is passed on.
template <class From>
std::unique_ptr<IResponseHandler<optional<From>>> clientsFor(std::unique_ptr<IResponseHandler<Client>>&& handler)
{
    if (!handler) {
        return nullptr; // for the runtime to refuse
    }
    return std::make_unique<responsehandlers::MappingResponseHandler<optional<From>, Client>>(
        std::move(handler), [](const optional<From>& from) {
            // The outer optional always has a value: an absent client is news, too.
            return optional<Client>(
                std::in_place, from ? Client(std::make_shared<ServiceRegistryPexClient>(resolvedOf(*from))) : Client());
        });
}

} // namespace

Disposable connectServiceRegistryPex(runtime::v02::IRuntimeRegistry& runtime,
                                     std::unique_ptr<IResponseHandler<Client>>&& handler, const std::string& suffix)
{
    const std::string path = Path::join(ServiceRegistryPex::SERVICE_PATH, suffix);
    if (useBypass(path)) {
        url locator;
        locator.init(path);
        return runtime.resolveService(locator, clientsFor<Api>(std::move(handler)));
    }
    return runtime.trackAndResolveService(path, clientsFor<Resolved>(std::move(handler)));
}

} // namespace kesa::serviceregistry
