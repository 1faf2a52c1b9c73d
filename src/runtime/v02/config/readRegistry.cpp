// "use_local_registry", "use_registry" and "service_registry_locators".
#include "ConfigNode.h"
#include "KesaConfig.h"

namespace kesa::runtime::v02 {
namespace {

constexpr const char* ADVICE_ON_REGISTRYS_LOCATOR = R"(write a locator such as "ipc://kesa-registryd/registry")";

/// Answers whether the value is there and no boolean.
bool readFlag(const ConfigNode& node, const char* key, bool& flag)
{
    const bool failed = node.value().isDefined() && node.value().get(flag);
    KESA_TRACE(configChannel(), 2, "[readConfig] %s=%s", key, flag ? "ON" : "OFF");
    return failed;
}

} // namespace

bool KesaConfig::readUseLocalRegistry(const ConfigNode& root)
{
    const char* const key = "use_local_registry";
    const ConfigNode node = root[key];
    return readFlag(node, key, m_useLocalRegistry) &&
           node.failAs(node.mismatch("true or false"), 3, "readConfig", "local registy not bool", ADVICE_ON_FLAG);
}

bool KesaConfig::readUseRegistry(const ConfigNode& root)
{
    const char* const key = "use_registry";
    const ConfigNode node = root[key];
    const bool failed = readFlag(node, key, m_useRemoteRegistry);
    KESA_TRACE(configChannel(), 2, "[readConfig] %s=%d", key, m_useRemoteRegistry ? 1 : 0);
    return failed &&
           node.failAs(node.mismatch("true or false"), 3, "readConfig", "(remote) registy not bool", ADVICE_ON_FLAG);
}

bool KesaConfig::readRegistryLocators(const ConfigNode& root)
{
    const ConfigNode locators = root["service_registry_locators"];
    if (locators.value().isArray()) {
        return readRegistryLocator("*", locators);
    }
    // A bad partition must not take the registry away from the others: only the array form can fail.
    static_cast<void>(locators.readMembers([this](const std::string& partition, const ConfigNode& value) {
        static_cast<void>(readRegistryLocator(partition, value.tolerated()));
        return false;
    }));
    return false;
}

/// The locators before a bad one stay in use.
bool KesaConfig::readRegistryLocator(const std::string& partition, const ConfigNode& value)
{
    KESA_TRACE(configChannel(), 2, "[readRegistryLocator] partition='%s'", partition.c_str());
    if (!value.value().isArray()) {
        return value.value().isDefined() &&
               value.failAs(value.mismatch("a list"), 4, "readRegistryLocator", "registry locator is not array",
                            "write [ ... ] around the locators", "registry locators is not array");
    }
    std::vector<url> locators;
    const bool failed = value.readStrings(
        ADVICE_ON_REGISTRYS_LOCATOR, [&](const std::string& text, const ConfigNode& element, std::size_t index) {
            url locator(text);
            if (!locator.isValid()) {
                return element.fail(3, "readRegistryLocator", "unknown registry locator", ADVICE_ON_REGISTRYS_LOCATOR);
            }
            locators.push_back(std::move(locator));
            KESA_TRACE(configChannel(), 2, "[readConfig] %s[%zu]=%s", partition.c_str(), index, text.c_str());
            return false;
        });
    if (!locators.empty()) {
        KESA_TRACE(configChannel(), 2, "[readRegistryLocator] partition='%s' locators=%zu", partition.c_str(),
                   locators.size());
        m_registryLocators.emplace(partition, std::move(locators));
    }
    return failed;
}

} // namespace kesa::runtime::v02
