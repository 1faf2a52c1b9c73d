#include "unknownKeys.h"

#include <util/nearestName.h>

#include <algorithm>
#include <string_view>

namespace kesa::runtime::v02 {
namespace {

using util::config::Value;
using Keys = std::vector<std::string_view>;

/// "comm" belongs to the backend of that name.
const Keys& rootKeys()
{
    static const Keys& keys = *new Keys{"use_local_registry",
                                        "use_registry",
                                        "service_registry_locators",
                                        "backends",
                                        "serializer-formats",
                                        "services",
                                        "bypass",
                                        "smartProxy",
                                        "comm",
                                        "node_domain_mapping"};
    return keys;
}

const Keys& serviceKeys()
{
    static const Keys& keys = *new Keys{"is_dynamic", "path", "version", "type", "locators"};
    return keys;
}

const Keys& smartProxyKeys()
{
    static const Keys& keys = *new Keys{"timeout", "retryTimes", "mandatoryForwardErrors",
                                        "mandatroyRetryErrorsSubscribeList", "mandatroyRetryErrorsSubscribeElement"};
    return keys;
}

void addUnknown(const Value& object, const std::string& path, const Keys& known, ConfigReport& report)
{
    for (const auto& [key, value] : object) {
        if (std::find(known.begin(), known.end(), key) != known.end()) {
            continue;
        }
        const std::string name(ConfigReport::shortened(key));
        const std::string_view meant = util::nearestName(key, known);
        std::string text(UNKNOWN_KEY);
        text.append(" '").append(name).append("'");
        if (!meant.empty()) {
            text.append("; did you mean '").append(meant).append("'?");
        }
        report.complaints.push_back({meant.empty() ? 2 : 3, false, path + name, text});
    }
}

} // namespace

void addUnknownKeys(ConfigReport& report)
{
    addUnknown(report.root, report.path(""), rootKeys(), report);
    std::size_t index = 0;
    for (const Value& service : report.root["services"].items()) {
        addUnknown(service, report.path("services[") + std::to_string(index++) + "].", serviceKeys(), report);
    }
    addUnknown(report.root["smartProxy"], report.path("smartProxy."), smartProxyKeys(), report);
}

std::vector<std::string> documentKeys()
{
    std::vector<std::string> keys(rootKeys().begin(), rootKeys().end());
    for (const std::string_view key : serviceKeys()) {
        keys.push_back(std::string("services[].").append(key));
    }
    for (const std::string_view key : smartProxyKeys()) {
        keys.push_back(std::string("smartProxy.").append(key));
    }
    return keys;
}

} // namespace kesa::runtime::v02
