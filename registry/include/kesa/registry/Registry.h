#ifndef KESA_REGISTRY_REGISTRY_H
#define KESA_REGISTRY_REGISTRY_H

#include <kesa/serviceregistry/IServiceRegistry.h>

#include <memory>

namespace kesa::registry {

/// The registry: who provides what, told to all who watch. Usable in any process; `RegistryHost` makes it a service.
///
/// It never completes a stream and never sends `MODIFIED`: a changed record is `REMOVED`, then `ADDED`. All streams see
/// changes in one order. A record lives as long as the request that registered it, and belongs to the process instance
/// that sent it (`RequestContext::current()`; without one, to this process). A path that another living process holds
/// is refused with 409, but only when the holder has just proved that it lives; a holder that does not is disconnected.
///
/// Any thread. Handlers are called with the registry's lock held and must only queue.
class KESA_API Registry final : public serviceregistry::IServiceRegistry {
public:
    Registry();
    ~Registry() override;

    void* queryRegistry(std::unique_ptr<IResponseHandler<std::vector<serviceregistry::RegistryUpdate>>>&& handler,
                        const serviceregistry::Query& query) override;
    void* registerService(std::unique_ptr<IResponseHandler<serviceregistry::ServiceDef>>&& handler, const Path& path,
                          const serviceregistry::ServiceDef& serviceDef) override;
    void* trackService(std::unique_ptr<IResponseHandler<serviceregistry::RegistryUpdate>>&& handler, const Path& path,
                       const optional<bool>& includeMetaInfo) override;
    void cancelRequest(void* handle) override;

private:
    class Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace kesa::registry

#endif
