#include "probe.h"

#include <kesa/commands.h>
#include <kesa/mimetypes.h>
#include <kesa/serviceregistry/IServiceRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>

#include <algorithm>

namespace kesactl {

using kesa::serviceregistry::IServiceRegistry;
using kesa::serviceregistry::ServiceRegistryPex;

kesa::Request probeOf(const ServiceDef& service)
{
    // Also under another path: a record may name the registry's locator.
    const bool isRegistry = service.type == ServiceDef::TypeEnum::registry ||
                            std::any_of(service.locators.begin(), service.locators.end(), [](const kesa::url& locator) {
                                return locator.path() == ServiceRegistryPex::SERVICE_PATH;
                            });
    return isRegistry ? kesa::Request(std::string(IServiceRegistry::EXPLAIN), ServiceRegistryPex::SERVICE_PATH,
                                      kesa::Payload::createFromString("{}", kesa::mimetypes::JSON))
                      : kesa::Request(kesa::commands::PING, "/");
}

} // namespace kesactl
