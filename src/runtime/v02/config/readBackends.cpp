// "backends" and "serializer-formats".
#include "ConfigNode.h"
#include "KesaConfig.h"
#include "knownNames.h"

namespace kesa::runtime::v02 {

using util::config::excerpt;

namespace {

constexpr const char* KNOWN_FORMATS = R"(known are "application/json" and "application/vnd.qelbin")";
constexpr const char* GOOD_FORMATS = R"(write {"*": ["application/json"]})";
constexpr const char* KNOWN_BACKENDS = R"(known are "comm" and "local")";

/// Appends the known formats of the list; true when it holds something that is no string.
bool readFormats(const ConfigNode& list, std::vector<std::string>& formats)
{
    return list.readStrings(KNOWN_FORMATS, [&](std::string& format, const ConfigNode& element, std::size_t index) {
        if (!isKnownFormat(format)) {
            element.warn("readConfig", "unknown serializer-format '" + excerpt(format) + "' configured", KNOWN_FORMATS);
            return false;
        }
        KESA_TRACE(configChannel(), 2, "[readConfig] %s[%zu]=%s", "serializer-formats", index, format.c_str());
        formats.push_back(std::move(format));
        return false;
    });
}

bool failWithoutFormat(const ConfigNode& list)
{
    const std::string text = "no serializer-format configured";
    if (!list.value().isArray() || list.size() == 0) {
        return list.failAs(list.mismatch("a list of formats"), 4, "readConfig", text,
                           "write a list such as [\"application/json\"]");
    }
    return list.failAs("names no known format", 4, "readConfig", text, KNOWN_FORMATS);
}

} // namespace

bool KesaConfig::readBackends(const ConfigNode& root)
{
    const ConfigNode backends = root["backends"];
    if (!backends.value().isArray()) {
        return backends.value().isDefined() && backends.failAs(backends.mismatch("a list"), 4, "readConfig",
                                                               "backends is not array", "write [\"comm\"]");
    }
    m_backends.clear();
    const bool failed =
        backends.readStrings(KNOWN_BACKENDS, [&](std::string& name, const ConfigNode& element, std::size_t index) {
            if (!isKnownBackend(name)) {
                element.warn("readConfig", "unknown backend '" + excerpt(name) + "' configured", KNOWN_BACKENDS);
                return false;
            }
            KESA_TRACE(configChannel(), 2, "[readConfig] %s[%zu]=%s", "backends", index, name.c_str());
            m_backends.push_back(std::move(name));
            return false;
        });
    if (m_backends.empty()) {
        return backends.fail(4, "readConfig", "no backend configured", "name \"comm\", or leave the key out");
    }
    return failed;
}

bool KesaConfig::readSerializerFormats(const ConfigNode& root)
{
    const ConfigNode rules = root["serializer-formats"];
    if (!rules.value().isDefined()) {
        rules.hint("readConfig", "serializer-formats is undefined. Falling back to defaults", GOOD_FORMATS);
        return false;
    }
    if (rules.value().isDictionary()) {
        return readFormatRules(rules);
    }
    if (!rules.value().isArray()) {
        return rules.failAs(rules.mismatch("a list of formats, or an object of such lists by service path"), 4,
                            "readConfig", "serializer-formats is neither array nor dictionary", GOOD_FORMATS);
    }
    std::vector<std::string> formats;
    const bool failed = readFormats(rules, formats);
    if (formats.empty()) {
        return failWithoutFormat(rules);
    }
    m_serializers.insert_or_assign("*", std::move(formats));
    return failed;
}

bool KesaConfig::readFormatRules(const ConfigNode& rules)
{
    m_serializers.clear();
    bool isBroken = false;
    const bool failed = rules.readMembers([&](const std::string& service, const ConfigNode& list) {
        std::vector<std::string> formats;
        // A list that breaks off is kept as far as it went. The failure leaves every later list empty, and so ends
        // the loop at the next rule.
        isBroken = rules.endsWith(isBroken) || readFormats(list, formats) || isBroken;
        if (formats.empty()) {
            return failWithoutFormat(list);
        }
        m_serializers.emplace(service, std::move(formats));
        return false;
    });
    if (m_serializers.count("*") == 0) {
        const std::string text = "no default rule for serializer-formats defined. Defining one";
        if (rules.value()["*"].isDefined()) { // and wrong, as the report says already
            rules.trace(3, "readConfig", text);
        } else {
            rules.hint("readConfig", text, R"(add "*": ["application/json"])");
        }
        m_serializers.emplace("*", std::vector<std::string>{std::string(mimetypes::JSON)});
    }
    return failed || isBroken;
}

} // namespace kesa::runtime::v02
