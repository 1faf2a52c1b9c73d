#include <kesa/runtime/v02/KesaConfigAccessor.h>

#include "ConfigNode.h"
#include "KesaConfig.h"

#include <algorithm>

namespace kesa::runtime::v02 {

KesaConfigAccessor::KesaConfigAccessor() : KesaConfigAccessor(KesaConfig::getDefault()) {}

KesaConfigAccessor::KesaConfigAccessor(const KesaConfig& config) : m_config(&config) {}

bool KesaConfigAccessor::useRemoteRegistry() const
{
    return m_config->m_useRemoteRegistry;
}

bool KesaConfigAccessor::useLocalRegistry() const
{
    return m_config->m_useLocalRegistry;
}

const std::vector<std::string>& KesaConfigAccessor::getBackends() const
{
    return m_config->m_backends;
}

const std::vector<serviceregistry::ServiceDef>& KesaConfigAccessor::getServices() const
{
    return m_config->m_services;
}

optional<std::vector<url>> KesaConfigAccessor::getRegistryLocatorsByPartition(const std::string& partition,
                                                                              bool exactOnly) const
{
    const auto& locators = m_config->m_registryLocators;
    auto found = locators.find(partition);
    if (found == locators.end() && !exactOnly) {
        found = locators.find("*");
    }
    return found == locators.end() ? nullopt : optional<std::vector<url>>(found->second);
}

bool KesaConfigAccessor::isValid() const
{
    return m_config->m_valid;
}

bool KesaConfigAccessor::useBypass(const std::string& servicePath) const
{
    const auto own = m_config->m_bypass.find(m_config->m_ownProcessName);
    if (own != m_config->m_bypass.end() &&
        std::find(own->second.begin(), own->second.end(), servicePath) != own->second.end()) {
        KESA_TRACE(configChannel(), 2, "use bypass for service='%s'", servicePath.c_str());
        return true;
    }
    KESA_TRACE(configChannel(), 2, "no bypass for service='%s' configured", servicePath.c_str());
    return false;
}

std::string KesaConfigAccessor::getOwnProcessName() const
{
    return m_config->m_ownProcessName;
}

const RegistryLimits& KesaConfigAccessor::getRegistryLimits() const
{
    return m_config->m_registryLimits;
}

const ProxyConfig& KesaConfigAccessor::getProxyConfig() const
{
    return m_config->m_proxyConfig;
}

void KesaConfigAccessor::getNodeDomainMapping(std::string& name) const
{
    const auto found = m_config->m_nodeDomainMapping.find(name);
    if (found != m_config->m_nodeDomainMapping.end()) {
        name = found->second;
    }
}

const std::vector<std::string>& KesaConfigAccessor::getSerializers(const std::string& name) const
{
    const auto found = m_config->m_serializers.find(name);
    return found != m_config->m_serializers.end() ? found->second : m_config->m_serializers.at("*");
}

} // namespace kesa::runtime::v02
