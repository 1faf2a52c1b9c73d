#include "reviewDocument.h"

#include "addFurtherErrors.h"

#include <kesa/Path.h>
#include <kesa/url.h>

#include <algorithm>
#include <string_view>
#include <unordered_set>

namespace kesa::runtime::v02 {
namespace {

using util::config::Value;
/// Of locators that are read as they are: those that no service can have.
void reviewLocators(const Value& list, const std::string& path, bool mayLackPath, ConfigReport& report)
{
    std::size_t index = 0;
    std::unordered_set<std::string_view> seen;
    for (const Value& element : list.items()) {
        const std::string place = path + "[" + std::to_string(index++) + "]";
        const url locator{std::string(element.stringView())};
        if (element.isString() && !seen.insert(element.stringView()).second) {
            report.complaints.push_back({2, false, place, "stands more than once"});
            continue;
        }
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

/// A path that stands for a service.
void reviewPath(const std::string& path, const std::string& place, ConfigReport& report)
{
    if (Path::isAbsolute(path) && !Path::isCanonical(path)) {
        report.complaints.push_back({3, false, place, "'" + path + "' is no path of a service: nobody can reach it"});
    }
}

void reviewServices(ConfigReport& report)
{
    const Value& services = report.root["services"];
    bool useRegistry = false;
    static_cast<void>(report.root["use_registry"].get(useRegistry));
    std::unordered_set<std::string> paths;
    std::size_t index = 0;
    for (const Value& service : services.items()) {
        const std::string place = report.path("services[") + std::to_string(index++) + "].";
        const std::string path(service["path"].stringView());
        reviewPath(path, place + "path", report);
        if (!path.empty() && !paths.insert(path).second) {
            report.complaints.push_back(
                {3, false, place + "path", "'" + path + "' stands more than once; the first entry counts"});
        }
        reviewLocators(service["locators"], place + "locators", true, report);
        bool isDynamic = false;
        const bool isPassedOver = !service["is_dynamic"].get(isDynamic) && isDynamic;
        if (!useRegistry && !isPassedOver && service["locators"].isArray() && service["locators"].items().empty()) {
            report.complaints.push_back(
                {3, false, place + "locators",
                 "has no locator, so nobody can provide or reach the service; write one such as "
                 "\"ipc://process\", or \"is_dynamic\": true"});
        }
    }
    if (!paths.empty() && useRegistry) {
        report.complaints.push_back(
            {3, false, report.path("services"),
             "have no effect together with \"use_registry\": true: the registry knows the services; remove them"});
    }
}

void reviewRegistryLocators(ConfigReport& report)
{
    const Value& locators = report.root["service_registry_locators"];
    const std::string place = report.path("service_registry_locators");
    if (locators.isDefined() && !locators.isArray() && !locators.isDictionary()) {
        report.complaints.push_back({3, false, place,
                                     "is neither object nor list, and counts as none; write {\"*\": "
                                     "[\"ipc://kesa-registryd/registry\"]}"});
    }
    reviewLocators(locators, place, false, report);
    for (const auto& [partition, list] : locators) {
        const std::string placeOfList = place + "." + std::string(ConfigReport::shortened(partition));
        reviewLocators(list, placeOfList, false, report);
        if (list.isArray() && list.items().empty()) {
            report.complaints.push_back({3, false, placeOfList,
                                         "has no locators, and counts as not there; name one such as "
                                         "\"ipc://kesa-registryd/registry\", or leave it out"});
        }
    }
}

void reviewBackends(ConfigReport& report)
{
    std::unordered_set<std::string_view> names;
    std::size_t index = 0;
    for (const Value& name : report.root["backends"].items()) {
        const std::string place = report.path("backends[") + std::to_string(index++) + "]";
        if (name.isString() && !names.insert(name.stringView()).second) {
            report.complaints.push_back({3, false, place,
                                         "'" + std::string(name.stringView()) +
                                             "' stands more than once; the second one would not get the name of the "
                                             "process; remove it"});
        }
    }
}

/// Paths that stand for services: keys of the formats, and what may be reached directly.
void reviewPaths(ConfigReport& report)
{
    for (const auto& [path, formats] : report.root["serializer-formats"]) {
        const std::string place = report.path("serializer-formats.") + std::string(ConfigReport::shortened(path));
        reviewPath(path, place, report);
        if (path != "*" && !Path::isAbsolute(path)) {
            report.complaints.push_back(
                {3, false, place, "'" + path + "' is no path of a service; write \"*\" or begin it with '/'"});
        }
    }
    for (const auto& [client, paths] : report.root["bypass"]) {
        const std::string place = report.path("bypass.") + std::string(ConfigReport::shortened(client)) + "[";
        std::size_t index = 0;
        for (const Value& path : paths.items()) {
            reviewPath(std::string(path.stringView()), place + std::to_string(index++) + "]", report);
        }
    }
}

void reviewSmartProxy(ConfigReport& report)
{
    const Value& proxy = report.root["smartProxy"];
    if (proxy.isDefined() && !proxy.isDictionary()) {
        report.complaints.push_back({3, false, report.path("smartProxy"),
                                     "is no object, and counts as an empty one; write {\"timeout\": 3000} or leave it "
                                     "out"});
    }
}

} // namespace

void reviewDocument(ConfigReport& report)
{
    addFurtherErrors(report);
    for (const std::string& path : report.duplicateKeys) {
        report.complaints.push_back({3, false, path, "the key stands more than once; the last one counts"});
    }
    reviewServices(report);
    reviewRegistryLocators(report);
    reviewBackends(report);
    reviewPaths(report);
    reviewSmartProxy(report);
}

} // namespace kesa::runtime::v02
