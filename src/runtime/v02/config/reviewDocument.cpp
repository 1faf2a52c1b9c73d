#include "reviewDocument.h"

#include "ConfigNode.h"

#include <kesa/Path.h>
#include <kesa/processName.h>
#include <kesa/url.h>

#include <fmt/format.h>

#include <string_view>
#include <unordered_set>

namespace kesa::runtime::v02 {

using util::config::excerpt;

namespace {

constexpr const char* NO_WILDCARD = "'*' is taken as a name here, and does not stand for all others";

/// Of locators that are read as they are: those that no service can have.
void reviewLocators(const ConfigNode& list, bool mayLackPath)
{
    std::unordered_set<std::string_view> seen;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const ConfigNode element = list[i];
        const std::string_view text = element.value().stringView();
        const url locator{std::string(text)};
        if (element.value().isString() && !seen.insert(text).second) {
            element.complain(Severity::eHINT, "stands more than once", "remove it");
            continue;
        }
        if (!locator.isValid() || (mayLackPath && locator.path().empty())) {
            continue; // the reader's to judge
        }
        if (locator.hasQueryOrFragment()) {
            element.complain(Severity::eWARNING, "leads nowhere: the locator of a service has no query and no fragment",
                             "leave out what begins with '?' or '#'");
        } else if (!Path::isCanonical(locator.path())) {
            element.complain(Severity::eWARNING,
                             "leads nowhere: '" + excerpt(locator.path()) + "' is no path of a service",
                             R"(write the path of the service behind the process, as in "ipc://process/path")");
        }
    }
}

/// A path that stands for a service.
void reviewPath(const std::string& path, const ConfigNode& node)
{
    if (!Path::isAbsolute(path) || Path::complaintAboutService(path).empty()) {
        return;
    }
    const bool isCanonical = Path::isCanonical(path);
    node.complain(Severity::eWARNING, "'" + excerpt(path) + "' is no path of a service: nobody can reach it",
                  isCanonical
                      ? "write one such as \"/media/player\", of at most 1024 bytes and 64 segments, without any "
                        "of the characters * ? [ ] { } \\"
                      : "write one such as \"/media/player\", without '//', '.', '..', control characters, or "
                        "a '/' at its end");
}

void reviewServices(const ConfigNode& root)
{
    const ConfigNode services = root["services"];
    bool useRegistry = false;
    static_cast<void>(root.value()["use_registry"].get(useRegistry));
    std::unordered_set<std::string> paths;
    for (std::size_t i = 0; i < services.size(); ++i) {
        const ConfigNode service = services[i];
        const ConfigNode locators = service["locators"];
        const std::string path(service["path"].value().stringView());
        reviewPath(path, service["path"]);
        if (!path.empty() && !paths.insert(path).second) {
            service["path"].complain(Severity::eWARNING,
                                     "'" + excerpt(path) + "' stands more than once; the first entry counts",
                                     "remove the others");
        }
        reviewLocators(locators, true);
        bool isDynamic = false;
        const bool isPassedOver = !service.value()["is_dynamic"].get(isDynamic) && isDynamic;
        if (!useRegistry && !isPassedOver && locators.value().isArray() && locators.size() == 0) {
            locators.complain(Severity::eWARNING, "has no locator, so nobody can provide or reach the service",
                              "write one such as \"ipc://process\", or \"is_dynamic\": true");
        }
    }
    if (!paths.empty() && useRegistry) {
        services.complain(Severity::eWARNING,
                          "have no effect together with \"use_registry\": true: the registry knows the services",
                          "remove them");
    }
}

void reviewRegistryLocators(const ConfigNode& locators)
{
    if (locators.value().isDefined() && !locators.value().isArray() && !locators.value().isDictionary()) {
        locators.complain(Severity::eWARNING, locators.mismatch("an object or a list") + ", which counts as none",
                          "write {\"*\": [\"ipc://kesa-registryd/registry\"]}");
    }
    reviewLocators(locators, false);
    for (const auto& [partition, value] : locators.value()) {
        const ConfigNode list = locators[partition];
        if (partition.empty()) {
            list.complain(Severity::eWARNING, "no partition has an empty name",
                          "name the partition, or write \"*\" for all that are not named");
        }
        reviewLocators(list, false);
        if (value.isArray() && value.arraySize() == 0) {
            list.complain(Severity::eWARNING, "has no locators, and counts as not there",
                          "name one such as \"ipc://kesa-registryd/registry\", or leave it out");
        }
    }
}

void reviewBackends(const ConfigNode& backends)
{
    std::unordered_set<std::string_view> names;
    for (std::size_t i = 0; i < backends.size(); ++i) {
        const util::config::Value& name = backends.value()[i];
        if (name.isString() && !names.insert(name.stringView()).second) {
            backends[i].complain(Severity::eWARNING,
                                 "'" + excerpt(name.stringView()) +
                                     "' stands more than once; the second one would not get the name of the process",
                                 "remove it");
        }
    }
}

/// Paths that stand for services: keys of the formats, and what may be reached directly.
void reviewPaths(const ConfigNode& formats, const ConfigNode& bypass)
{
    for (const auto& [path, list] : formats.value()) {
        reviewPath(path, formats[path]);
        if (path != "*" && !Path::isAbsolute(path)) {
            formats[path].complain(Severity::eWARNING, "'" + excerpt(path) + "' is no path of a service",
                                   "write \"*\" or begin it with '/'");
        }
    }
    for (const auto& [client, value] : bypass.value()) {
        const ConfigNode paths = bypass[client];
        if (client == "*" || !isProcessName(client)) {
            paths.complain(Severity::eWARNING,
                           client == "*" ? NO_WILDCARD : "has no effect, since no process has that name",
                           "write the name of a process");
        }
        for (std::size_t i = 0; i < paths.size(); ++i) {
            reviewPath(std::string(value[i].stringView()), paths[i]);
        }
    }
}

/// What gives no node a partition.
void reviewNodes(const ConfigNode& mapping)
{
    for (const auto& [node, partition] : mapping.value()) {
        const ConfigNode member = mapping[node];
        if (node == "*") {
            member.complain(Severity::eWARNING, NO_WILDCARD,
                            "name the nodes; each other one is a partition of its own name, which uses the locators "
                            "of \"*\" in \"service_registry_locators\" unless it has its own");
        } else if (node.empty()) {
            member.complain(Severity::eWARNING, "has no effect, since no node has an empty name",
                            "write the name of the node, as in KESA_NODE or framework.json");
        }
        if (partition.isString() && partition.stringView().empty()) {
            member.complain(Severity::eWARNING, "the name of the partition is empty",
                            "write the name of a partition, or leave the node out");
        }
    }
}

/// The backend and the registry read the rules. `effect`: of a table that is none.
void reviewRules(const ConfigNode& table, const char* effect, const char* example)
{
    if (table.value().isDefined() && !table.value().isArray()) {
        table.complain(Severity::eERROR, fmt::format("{}: {}", table.mismatch("a list of rules"), effect),
                       fmt::format("write one such as {}, in a list", example));
    }
}

} // namespace

void reviewDocument(ConfigReport& report)
{
    const ConfigNode root(report.root, report);
    reviewServices(root);
    reviewRegistryLocators(root["service_registry_locators"]);
    reviewBackends(root["backends"]);
    reviewPaths(root["serializer-formats"], root["bypass"]);
    reviewNodes(root["node_domain_mapping"]);
    reviewRules(root["access"], "all services are closed to other users",
                R"({"user": "media", "may": ["retrieve"], "paths": ["/media/**"]})");
    reviewRules(root["registry"]["policy"], "kesa-registryd does not start",
                R"({"user": "media", "may": ["register"], "paths": ["/media/**"]})");
    const ConfigNode proxy = root["smartProxy"];
    if (proxy.value().isDefined() && !proxy.value().isDictionary()) {
        proxy.complain(Severity::eWARNING, proxy.mismatch("an object") + ", which counts as an empty one",
                       "write {\"timeout\": 3000} or leave it out");
    }
}

} // namespace kesa::runtime::v02
