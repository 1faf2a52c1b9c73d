#ifndef KESA_RUNTIME_V02_IRUNTIMEREGISTRY_H
#define KESA_RUNTIME_V02_IRUNTIMEREGISTRY_H

#include <kesa/Disposable.h>
#include <kesa/GenericObject.h>
#include <kesa/IKesaApi.h>
#include <kesa/IResponseHandler.h>
#include <kesa/ResourceUpdate.h>
#include <kesa/optional.h>
#include <kesa/runtime/v02/ResolveResult.h>
#include <kesa/serviceregistry/Query.h>
#include <kesa/serviceregistry/ServiceDef.h>
#include <kesa/url.h>

#include <memory>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

using serviceregistry::Query;
using serviceregistry::ServiceDef;

/// Registers, tracks and resolves services.
///
/// Every operation may be called from any thread, also from inside any handler: it copies its arguments, posts the
/// work to the executor and returns at once; calls of one thread take effect in their order. The handler is the
/// runtime's from the call on. A null handler is refused: a trace, and a `Disposable` that does nothing.
///
/// Which thread calls a handler:
///
/// | call                                                             | thread   |
/// |------------------------------------------------------------------|----------|
/// | `onNext` of `registerService`                                    | executor |
/// | its errors                                                       | updater  |
/// | first `eADDED` of a tracking, initial matches of a query         | executor |
/// | every later update                                               | updater  |
/// | values of `resolveService`, `trackAndResolve...`                 | executor |
/// | 404 (no locator that a backend can handle), 400                  | updater  |
/// | 404 (no backend could make a client object)                      | executor, from `trackAndResolve...` updater |
/// | 409 "kesa runtime in registry ..."                               | executor |
///
/// Calls of one handler never overlap. Handlers must not block: the executor carries the whole runtime, the updater
/// every client's updates.
///
/// "Connected" and "lost" of a client object are news: the connection may be lost, and there again, before they come.
/// Whoever issues a persistent request at "connected" cancels it at "lost", at the client object it had, before it
/// issues the next: it may have gone over the connection of which "connected" is yet to come. Cancelling a request that
/// has ended does nothing.
///
/// Disposing posts the end of the subscription. Until the handler's destructor has run, calls may still come; after it
/// none. Handlers are destroyed on the executor, on the updater or in `KesaRuntime::shutdown`, without a final call.
class KESA_API IRuntimeRegistry {
public:
    /// Provides `api` under `path` and makes it known. `onNext` brings the service's record, with its locators: it is
    /// provided here; others find it once the registry knows it (`kesa::provide` tells when), and an error may still
    /// follow. Errors: 409 the path is registered already, cannot be provided, or is of another type in the
    /// configuration; 400 no service can have the path, or `api` is null. The versions are the string or the strings
    /// under "versions" in `metainfo`.
    ///
    /// Disposing withdraws what the *path* has registered by then: the `Disposable` of a refused registration, if
    /// disposed, ends the registration that was in its way, with a trace (3). Never put it under a
    /// scope guard before `onNext` came.
    virtual Disposable registerService(const std::string& path, std::shared_ptr<IKesaApi> api,
                                       ServiceDef::TypeEnum type, const GenericObject& metainfo,
                                       std::unique_ptr<IResponseHandler<ServiceDef>>&& handler) = 0;
    /// The same with the versions of the service's interface.
    virtual Disposable registerService(const std::string& path, std::shared_ptr<IKesaApi> api,
                                       ServiceDef::TypeEnum type, const std::vector<std::string>& versions,
                                       const GenericObject& metainfo,
                                       std::unique_ptr<IResponseHandler<ServiceDef>>&& handler) = 0;

    /// Follows one path: `ResourceUpdateType::eADDED` at once if the service is there, then every change. It and
    /// `ResourceUpdateType::eREMOVED` take turns. The flag has no meaning.
    virtual Disposable trackService(const std::string& path, bool flag,
                                    std::unique_ptr<IResponseHandler<ResourceUpdate<ServiceDef>>>&& handler) = 0;
    virtual Disposable trackService(const std::string& path,
                                    std::unique_ptr<IResponseHandler<ResourceUpdate<ServiceDef>>>&& handler) = 0;

    /// Follows every service that matches: first `eADDED` for each that this process has registered, then every change.
    /// Per service `eADDED` and `eREMOVED` take turns. Errors: 400 for a malformed pattern, with the reason.
    virtual Disposable trackServices(const Query& query,
                                     std::unique_ptr<IResponseHandler<ResourceUpdate<ServiceDef>>>&& handler) = 0;

    /// Connects to a locator: a client object when connected, no value when the connection is lost, and so on until
    /// disposed. Errors: 404 when no backend can reach it.
    virtual Disposable
    resolveService(const url& locator,
                   std::unique_ptr<IResponseHandler<optional<std::shared_ptr<IKesaApi>>>>&& handler) = 0;
    /// The same for the first locator of the service that a backend can handle.
    virtual Disposable
    resolveService(const ServiceDef& serviceDef,
                   std::unique_ptr<IResponseHandler<optional<std::shared_ptr<IKesaApi>>>>&& handler) = 0;

    /// Follows one path and connects to it: a result when the service is there and connected, no value when it is not,
    /// in turn. Errors end it: 404 when none of the service's locators can be reached.
    virtual Disposable trackAndResolveService(
        const std::string& path,
        std::unique_ptr<IResponseHandler<optional<ResolveResult<std::shared_ptr<IKesaApi>>>>>&& handler) = 0;

    /// The same for every service that matches: per service a result with `api`, then one without, in turn.
    virtual Disposable trackAndResolveServices(
        const Query& query,
        std::unique_ptr<IResponseHandler<ResolveResult<optional<std::shared_ptr<IKesaApi>>>>>&& handler) = 0;

    virtual ~IRuntimeRegistry();
};

} // namespace kesa::runtime::v02

#endif
