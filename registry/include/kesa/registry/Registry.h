#ifndef KESA_REGISTRY_REGISTRY_H
#define KESA_REGISTRY_REGISTRY_H

#include <kesa/runtime/v02/RegistryLimits.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

#include <memory>

namespace kesa::registry {

/// The registry: who provides what, told to all who watch. Usable in any process; `RegistryHost` makes it a service.
///
/// It never completes a stream and never sends `MODIFIED`: a changed record is `REMOVED`, then `ADDED`. All streams see
/// changes in one order. A record lives as long as the request that registered it, and belongs to the process that sent
/// it (`RequestContext::current()`; without one, to this process): the same instance, and the same `uid`, `pid` and
/// `start`. A path that another process holds is refused with 409 if that one lives, also when it stands still
/// (`IPeer::isProcessAlive`); one that has ended is disconnected, and the path is the claimant's.
///
/// Per query, the first answer lists the services in the order of their paths, in lists below 48 KiB, as fast as the
/// peer takes them, each service as it is when its turn comes. Changes of what has been listed come between, so that
/// nothing is missed or repeated; the empty list ends the first answer. A service whose only locators are `ipc` ones of
/// another realm is not shown to a peer.
///
/// What one process and one user may have there is bounded, and what is more is refused with 400; this process is not.
/// docs/protocol_registry.md lists the bounds.
///
/// Any thread. Handlers are called with the registry's lock held and must only queue. They are destroyed with no lock
/// held; those still kept when the registry is destroyed, without a final call.
class KESA_API Registry final : public serviceregistry::IServiceRegistry {
public:
    explicit Registry(const runtime::v02::RegistryLimits& limits = {});
    ~Registry() override;

    void* queryRegistry(std::unique_ptr<IResponseHandler<std::vector<serviceregistry::RegistryUpdate>>>&& handler,
                        const serviceregistry::Query& query) override;
    void* registerService(std::unique_ptr<IResponseHandler<serviceregistry::ServiceDef>>&& handler, const Path& path,
                          const serviceregistry::ServiceDef& serviceDef) override;
    void* trackService(std::unique_ptr<IResponseHandler<serviceregistry::RegistryUpdate>>&& handler, const Path& path,
                       const optional<bool>& includeMetaInfo) override;
    void cancelRequest(void* handle) override;
    /// Answers inside the call.
    void* explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                  const std::string& process) override;

private:
    friend class RegistryHost;
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace kesa::registry

#endif
