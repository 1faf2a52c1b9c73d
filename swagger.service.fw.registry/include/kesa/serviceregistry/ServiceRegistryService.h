#ifndef KESA_SERVICEREGISTRY_SERVICEREGISTRYSERVICE_H
#define KESA_SERVICEREGISTRY_SERVICEREGISTRYSERVICE_H

#include <kesa/IResourceHandler.h>
#include <kesa/serviceregistry/IServiceRegistry.h>

namespace kesa::serviceregistry {

/// The registry protocol's serving side: reads requests, calls the registry, and writes its answers in the format that
/// was asked for. "retrieve" on "/" is a query, on any other path a tracking; "insert" is a registration; "explain" is
/// answered once. 400: a body that cannot be read, a record of another path than the request's, an unknown command;
/// 404: any other command.
///
/// The registry is called on the thread that delivers the request, with the asker in `RequestContext::current()`.
class KESA_API ServiceRegistryService final : public IResourceHandler {
public:
    static constexpr const char* ROOT = "/";

    /// `registry` outlives this object.
    explicit ServiceRegistryService(IServiceRegistry* registry);

    void* actionRequest(const Request& request, std::unique_ptr<IResponseHandler<Response>>&& handler,
                        const std::string& dispatch) override;
    void cancelRequest(void* handle) override;

private:
    IServiceRegistry* m_registry;
};

} // namespace kesa::serviceregistry

#endif
