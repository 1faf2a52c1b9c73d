#include "reviewDocument.h"

#include "nearestName.h"

#include <kesa/Path.h>
#include <kesa/url.h>

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

void reviewKeys(const Value& object, const std::string& path, const Keys& known, ConfigReport& report)
{
    for (const auto& [key, value] : object) {
        if (std::find(known.begin(), known.end(), key) != known.end()) {
            continue;
        }
        std::string text = "ignored: unknown key '" + key + "'";
        const std::string_view meant = nearestName(key, known);
        if (!meant.empty()) {
            text.append("; did you mean '").append(meant).append("'?");
        }
        report.complaints.push_back({2, false, path + key, text});
    }
}

/// Of locators that are read as they are: those that no service can have.
void reviewLocators(const Value& list, const std::string& path, bool mayLackPath, ConfigReport& report)
{
    std::size_t index = 0;
    for (const Value& element : list.items()) {
        const std::string place = path + "[" + std::to_string(index++) + "]";
        const url locator{std::string(element.stringView())};
        if (!locator.isValid() || (mayLackPath && locator.path().empty())) {
            continue; // the reader's to judge
        }
        if (locator.hasQueryOrFragment()) {
            report.complaints.push_back(
                {3, false, place, "leads nowhere: the locator of a service has no query and no fragment"});
        } else if (!Path::isCanonical(locator.path())) {
            report.complaints.push_back(
                {3, false, place, "leads nowhere: '" + locator.path() + "' is no path of a service"});
        }
    }
}

void reviewServices(ConfigReport& report)
{
    std::size_t index = 0;
    for (const Value& service : report.root["services"].items()) {
        const std::string place = report.path("services[") + std::to_string(index++) + "].";
        reviewKeys(service, place, serviceKeys(), report);
        const std::string path(service["path"].stringView());
        if (Path::isAbsolute(path) && !Path::isCanonical(path)) {
            report.complaints.push_back(
                {3, false, place + "path", "'" + path + "' is no path of a service: nobody can reach it"});
        }
        reviewLocators(service["locators"], place + "locators", true, report);
    }
}

void reviewRegistryLocators(ConfigReport& report)
{
    const Value& locators = report.root["service_registry_locators"];
    const std::string place = report.path("service_registry_locators");
    reviewLocators(locators, place, false, report);
    for (const auto& [partition, list] : locators) {
        reviewLocators(list, std::string(place).append(".").append(partition), false, report);
    }
}

} // namespace

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

void reviewDocument(ConfigReport& report)
{
    for (const std::string& path : report.duplicateKeys) {
        report.complaints.push_back({3, false, path, "the key stands more than once; the last one counts"});
    }
    reviewKeys(report.root, report.path(""), rootKeys(), report);
    reviewServices(report);
    reviewRegistryLocators(report);
    reviewKeys(report.root["smartProxy"], report.path("smartProxy."), smartProxyKeys(), report);
}

} // namespace kesa::runtime::v02
