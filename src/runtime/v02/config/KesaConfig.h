#ifndef KESA_RUNTIME_V02_CONFIG_KESACONFIG_H
#define KESA_RUNTIME_V02_CONFIG_KESACONFIG_H

#include <kesa/runtime/v02/ProxyConfig.h>
#include <kesa/runtime/v02/RegistryLimits.h>
#include <kesa/serviceregistry/ServiceDef.h>
#include <kesa/url.h>
#include <util/config/Value.h>

#include <string>
#include <unordered_map>
#include <vector>

namespace kesa::runtime::v02 {

class ConfigNode;
struct ConfigReport;

/// The configuration of a process: what its document says, else the defaults. Filled by the constructor, never changed
/// afterwards. Reading never ends the process: a document that cannot be read is traced and gives a record that is not
/// valid. Everybody but tools asks through `KesaConfigAccessor`.
class KesaConfig {
public:
    /// The defaults, for the process name "unknown_process".
    KesaConfig();
    /// Reads the document that `util::config::Provider` finds. `report` is filled when it is not null, with all errors:
    /// the reading itself ends with the first.
    explicit KesaConfig(const std::string& processName, ConfigReport* report = nullptr);
    /// Reads `text`, whose root is the configuration itself.
    KesaConfig(const std::string& processName, const std::string& text, ConfigReport* report = nullptr);
    /// Reads the document that `util::config::Provider` finds; `fallback`, read as a text, when there is none at all.
    static KesaConfig readOr(const std::string& processName, const std::string& fallback,
                             ConfigReport* report = nullptr);

    /// Of a document in the working directory that this process passes over, for its rights; empty where there is none.
    static std::string complaintAboutPassedOver();

    KesaConfig(KesaConfig&&) = default;
    KesaConfig& operator=(KesaConfig&&) = delete;
    KesaConfig(const KesaConfig&) = delete;
    KesaConfig& operator=(const KesaConfig&) = delete;

    /// The record of the default constructor; lives until the process ends.
    static const KesaConfig& getDefault();

    /// What was read, for people: the file, or words for the text that was given.
    std::string source() const;

    bool m_useRemoteRegistry = false;
    bool m_useLocalRegistry = false;
    std::vector<std::string> m_backends; ///< never empty
    std::vector<serviceregistry::ServiceDef> m_services;
    std::unordered_map<std::string, std::vector<std::string>> m_serializers; ///< by service path; always has "*"
    std::unordered_map<std::string, std::vector<url>> m_registryLocators;    ///< by partition, or "*"
    bool m_valid = true;
    std::string m_file; ///< the document that counts, also when it is not valid; empty without one
    std::unordered_map<std::string, std::vector<std::string>> m_bypass; ///< service paths, by client process
    std::string m_ownProcessName;
    ProxyConfig m_proxyConfig;
    RegistryLimits m_registryLimits;
    std::unordered_map<std::string, std::string> m_nodeDomainMapping; ///< domain, by node

private:
    void setDefaults();
    [[nodiscard]] bool readDocument(ConfigReport& report);
    [[nodiscard]] bool readText(const std::string& text, ConfigReport& report);
    [[nodiscard]] bool readConfig(const util::config::Value& root, ConfigReport& report);
    void endReading(bool failed, ConfigReport& report);

    [[nodiscard]] bool readKeys(const ConfigNode& root);
    // One step each, in this order; the first failure ends reading. What a step stored before it failed stays.
    [[nodiscard]] bool readUseLocalRegistry(const ConfigNode& root);
    [[nodiscard]] bool readUseRegistry(const ConfigNode& root);
    [[nodiscard]] bool readRegistryLocators(const ConfigNode& root);
    [[nodiscard]] bool readBackends(const ConfigNode& root);
    [[nodiscard]] bool readSerializerFormats(const ConfigNode& root);
    [[nodiscard]] bool readServices(const ConfigNode& root);
    [[nodiscard]] bool readBypass(const ConfigNode& root);
    [[nodiscard]] bool readSmartProxy(const ConfigNode& root);
    [[nodiscard]] bool readNodeDomainMapping(const ConfigNode& root);

    [[nodiscard]] bool readRegistryLocator(const std::string& partition, const ConfigNode& value);
    [[nodiscard]] bool readFormatRules(const ConfigNode& rules);
    [[nodiscard]] bool readService(const ConfigNode& entry);
    [[nodiscard]] bool readTimeout(const ConfigNode& proxy);
    [[nodiscard]] bool readProxyLists(const ConfigNode& proxy);
    void removeForwardedErrors();
    void readRegistryLimits(const ConfigNode& root);
};

} // namespace kesa::runtime::v02

#endif
