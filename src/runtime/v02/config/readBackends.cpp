// "backends" and "serializer-formats".
#include "ConfigNode.h"
#include "KesaConfig.h"
#include "knownNames.h"

namespace kesa::runtime::v02 {
namespace {

/// Appends the known formats of the list; true when it holds something that is no string.
bool readFormats(const ConfigNode& list, std::vector<std::string>& formats)
{
    return list.readStrings([&](std::string& format, const ConfigNode& element, std::size_t index) {
        if (!isKnownFormat(format)) {
            element.warn("[readConfig] unknown serializer-format '{}' configured", format);
            return false;
        }
        KESA_TRACE(configChannel(), 2, "[readConfig] %s[%zu]=%s", "serializer-formats", index, format.c_str());
        formats.push_back(std::move(format));
        return false;
    });
}

bool failWithoutFormat(const ConfigNode& list)
{
    return list.fail(4, "no serializer-format configured", "[readConfig] no serializer-format configured");
}

} // namespace

bool KesaConfig::readBackends(const ConfigNode& root)
{
    const ConfigNode backends = root["backends"];
    if (!backends.value().isArray()) {
        return backends.value().isDefined() &&
               backends.fail(4, "backends is not array", "[readConfig] backends is not array");
    }
    m_backends.clear();
    const bool failed = backends.readStrings([&](std::string& name, const ConfigNode& element, std::size_t index) {
        if (!isKnownBackend(name)) {
            element.warn("[readConfig] unknown backend '{}' configured", name);
            return false;
        }
        KESA_TRACE(configChannel(), 2, "[readConfig] %s[%zu]=%s", "backends", index, name.c_str());
        m_backends.push_back(std::move(name));
        return false;
    });
    if (m_backends.empty()) {
        return backends.fail(4, "no backend configured", "[readConfig] no backend configured");
    }
    return failed;
}

bool KesaConfig::readSerializerFormats(const ConfigNode& root)
{
    const ConfigNode rules = root["serializer-formats"];
    if (!rules.value().isDefined()) {
        rules.warn("[readConfig] serializer-formats is undefined. Falling back to defaults");
        return false;
    }
    if (rules.value().isDictionary()) {
        return readFormatRules(rules);
    }
    if (!rules.value().isArray()) {
        return rules.fail(4, "serializer-formats is neither array nor dictionary",
                          "[readConfig] serializer-formats is neither array nor dictionary");
    }
    m_serializers.clear();
    std::vector<std::string> formats;
    const bool failed = readFormats(rules, formats);
    if (formats.empty()) {
        return failWithoutFormat(rules);
    }
    m_serializers.emplace("*", std::move(formats));
    return failed;
}

bool KesaConfig::readFormatRules(const ConfigNode& rules)
{
    m_serializers.clear();
    bool failed = false;
    for (const auto& [service, list] : rules.value()) {
        const ConfigNode node = rules[service];
        std::vector<std::string> formats;
        // A list that breaks off is kept as far as it went. The failure leaves every later list empty, and so ends
        // the loop at the next rule.
        failed = failed || readFormats(node, formats);
        if (formats.empty()) {
            failed = failWithoutFormat(node);
            break;
        }
        m_serializers.emplace(service, std::move(formats));
    }
    if (m_serializers.count("*") == 0) {
        rules.warn("[readConfig] no default rule for serializer-formats defined. Defining one");
        m_serializers.emplace("*", std::vector<std::string>{std::string(mimetypes::JSON)});
    }
    return failed;
}

} // namespace kesa::runtime::v02
