#ifndef KESA_SERVICEREGISTRY_CONNECTSERVICEREGISTRYPEX_H
#define KESA_SERVICEREGISTRY_CONNECTSERVICEREGISTRYPEX_H

#include <kesa/Disposable.h>
#include <kesa/runtime/v02/IRuntimeRegistry.h>
#include <kesa/serviceregistry/ServiceRegistryPexClient.h>

#include <memory>
#include <string>

namespace kesa::serviceregistry {

/// Finds the registry service (below it the one at `suffix`) and connects to it: a client while it is there and
/// connected, no value while it is not, in turn, until disposed. The configuration's bypass list makes it go to the
/// locator of the path without tracking it. Values come on the executor.
[[nodiscard]] KESA_API Disposable connectServiceRegistryPex(
    runtime::v02::IRuntimeRegistry& runtime,
    std::unique_ptr<IResponseHandler<optional<std::shared_ptr<ServiceRegistryPexClient>>>>&& handler,
    const std::string& suffix = {});

} // namespace kesa::serviceregistry

#endif
