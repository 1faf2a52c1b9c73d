#include "service/RegistryImpl.h"

#include <kesa/IKesaApi.h>

namespace kesa::registry {

Registry::Registry(const runtime::v02::RegistryLimits& limits) : m_impl(std::make_shared<Impl>(limits)) {}

Registry::~Registry()
{
    m_impl->close();
}

void* Registry::queryRegistry(std::unique_ptr<IResponseHandler<std::vector<RegistryUpdate>>>&& handler,
                              const Query& query)
{
    return m_impl->queryRegistry(std::move(handler), query);
}

void* Registry::registerService(std::unique_ptr<IResponseHandler<ServiceDef>>&& handler, const Path& path,
                                const ServiceDef& serviceDef)
{
    return m_impl->registerService(std::move(handler), path.toString(), serviceDef);
}

void* Registry::trackService(std::unique_ptr<IResponseHandler<RegistryUpdate>>&& handler, const Path& path,
                             const optional<bool>&)
{
    return m_impl->trackService(std::move(handler), path.toString());
}

void* Registry::explain(std::unique_ptr<IResponseHandler<GenericObject>>&& handler, const Path& path,
                        const std::string& process)
{
    const auto taken = std::move(handler);
    m_impl->explain(*taken, path.toString(), process);
    return IKesaApi::UNDEFINED_REQUEST_HANDLE;
}

void Registry::cancelRequest(void* handle)
{
    m_impl->cancelRequest(handle);
}

} // namespace kesa::registry
