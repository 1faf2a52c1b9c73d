#ifndef KESA_RUNTIME_V02_KESACONFIGACCESSOR_H
#define KESA_RUNTIME_V02_KESACONFIGACCESSOR_H

#include <kesa/optional.h>
#include <kesa/runtime/v02/ProxyConfig.h>
#include <kesa/runtime/v02/RegistryLimits.h>
#include <kesa/serviceregistry/ServiceDef.h>
#include <kesa/url.h>

#include <string>
#include <vector>

namespace kesa::runtime::v02 {

class KesaConfig;

/// Answers from the configuration of a process, which never changes. Copies are cheap. Any thread; none of the
/// operations fails. The runtime, or whoever owns the configuration, outlives the accessor and the references it hands
/// out.
class KESA_API KesaConfigAccessor {
public:
    /// From the defaults, for a process named "unknown_process".
    KesaConfigAccessor();
    explicit KesaConfigAccessor(const KesaConfig& config);

    bool useRemoteRegistry() const;
    bool useLocalRegistry() const;
    /// In configured order.
    const std::vector<std::string>& getBackends() const;
    const std::vector<serviceregistry::ServiceDef>& getServices() const;
    /// The locators of the partition; for an unknown one those of "*", unless `exactOnly`.
    optional<std::vector<url>> getRegistryLocatorsByPartition(const std::string& partition, bool exactOnly) const;
    /// The document was read without failure.
    bool isValid() const;
    /// Whether this process may reach the service without asking the registry.
    bool useBypass(const std::string& servicePath) const;
    std::string getOwnProcessName() const;
    const ProxyConfig& getProxyConfig() const;
    const RegistryLimits& getRegistryLimits() const;
    /// Replaces the name of a node by that of its domain, when it has one.
    void getNodeDomainMapping(std::string& name) const;
    /// The mime types of a service, preferred first; those of "*" when it has no rule of its own.
    const std::vector<std::string>& getSerializers(const std::string& name) const;

private:
    const KesaConfig* m_config;
};

} // namespace kesa::runtime::v02

#endif
