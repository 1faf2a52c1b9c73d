#include "unknownKeys.h"

#include "ConfigNode.h"

#include <util/nearestName.h>

#include <algorithm>
#include <string_view>

namespace kesa::runtime::v02 {
namespace {

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

void addUnknown(const ConfigNode& object, const Keys& known)
{
    for (const auto& [key, value] : object.value()) {
        if (std::find(known.begin(), known.end(), key) != known.end()) {
            continue;
        }
        if (object.isOnlyCounted()) {
            object.complain(Severity::eHINT, {}, {});
            continue;
        }
        const std::string_view meant = util::nearestName(key, known);
        std::string text = "ignored: unknown key '";
        text.append(util::config::shortenedKey(key)).append("'");
        if (meant.empty()) {
            object[key].complain(Severity::eHINT, std::move(text), "correct or remove it, unless it is a note");
        } else {
            object[key].complain(Severity::eWARNING, std::move(text),
                                 std::string("did you mean '").append(meant).append("'?"));
        }
    }
}

} // namespace

void addUnknownKeys(const ConfigNode& root)
{
    addUnknown(root, rootKeys());
    const ConfigNode services = root["services"];
    for (std::size_t i = 0; i < services.size(); ++i) {
        addUnknown(services[i], serviceKeys());
    }
    addUnknown(root["smartProxy"], smartProxyKeys());
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
