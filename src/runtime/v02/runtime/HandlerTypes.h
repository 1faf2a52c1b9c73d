#ifndef KESA_RUNTIME_V02_HANDLERTYPES_H
#define KESA_RUNTIME_V02_HANDLERTYPES_H

#include <kesa/IKesaApi.h>
#include <kesa/IResponseHandler.h>
#include <kesa/ResourceUpdate.h>
#include <kesa/optional.h>
#include <kesa/runtime/v02/ResolveResult.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>

#include <memory>

namespace kesa::runtime::v02 {

using serviceregistry::Query;
using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;

using ServiceUpdate = ResourceUpdate<ServiceDef>;
/// A client object while connected, no value while not.
using ProxyState = optional<std::shared_ptr<IKesaApi>>;
using ResolvedService = ResolveResult<std::shared_ptr<IKesaApi>>;
using ResolvedServiceState = ResolveResult<ProxyState>;

using RegistrationHandler = IResponseHandler<ServiceDef>;
using TrackingHandler = IResponseHandler<ServiceUpdate>;
using ProxyHandler = IResponseHandler<ProxyState>;
using ResolvedServiceHandler = IResponseHandler<optional<ResolvedService>>;
using ResolvedServicesHandler = IResponseHandler<ResolvedServiceState>;

} // namespace kesa::runtime::v02

#endif
