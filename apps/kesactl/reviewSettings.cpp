#include "reviewSettings.h"

#include <backend/Locators.h>
#include <backend/readCommSettings.h>
#include <kesa/Path.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <rules/usersAndGroups.h>
#include <runtime/v02/config/unknownKeys.h>
#include <transport/Authority.h>
#include <transport/IpcTransport.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesactl {
namespace {

using kesa::commadapter::CommSettings;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::Severity;
using util::config::Complaint;
using util::config::DocumentPath;
using util::config::excerpt;

std::string shortened(const std::string& key)
{
    return std::string(util::config::shortenedKey(key));
}

constexpr const char* GOOD_LOCATORS = R"(write "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]})";

void refuse(ConfigReport& report, DocumentPath path, std::string text, std::string advice)
{
    report.add({Severity::eERROR, report.path(std::move(path)), std::move(text), std::move(advice)});
}

void warn(ConfigReport& report, DocumentPath path, std::string text, std::string advice)
{
    report.add({Severity::eWARNING, report.path(std::move(path)), std::move(text), std::move(advice)});
}

/// Of a complaint of the backend: that the key belongs elsewhere says more than that it is unknown here.
bool isSaidByReader(const DocumentPath& path)
{
    const auto* const key = path.size() == 2 ? std::get_if<std::string>(&path.back()) : nullptr;
    return key != nullptr && kesa::runtime::v02::isMisplacedInComm(*key);
}

/// The backend reads its part of the document by itself.
CommSettings reviewComm(ConfigReport& report)
{
    kesa::commadapter::CommFaults faults;
    CommSettings settings = kesa::commadapter::readCommSettings(report.root["comm"], faults);
    for (Complaint& complaint : faults.complaints) {
        if (isSaidByReader(complaint.path)) {
            continue;
        }
        complaint.path = report.path(std::move(complaint.path));
        report.add(std::move(complaint));
    }
    report.unlisted += faults.unlisted;
    return settings;
}

void reviewGroup(const CommSettings& settings, ConfigReport& report)
{
    if (!settings.socketGroup.empty() && !kesa::access::findGroup(settings.socketGroup)) {
        warn(report, {"comm", "socket_group"},
             fmt::format("there is no group \"{}\" on this machine: a process could not provide services",
                         excerpt(settings.socketGroup)),
             "make the group, or name another one");
    }
}

/// The route of a path is its own, or that of a path above it.
bool hasRoute(const CommSettings& settings, std::string path)
{
    while (!path.empty() && settings.routes.count(path) == 0) {
        path.erase(path.rfind('/'));
    }
    return !path.empty();
}

void reviewBypass(const KesaConfig& config, const CommSettings& settings, ConfigReport& report)
{
    for (const auto& [client, paths] : config.m_bypass) {
        for (std::size_t i = 0; i < paths.size(); ++i) {
            if (kesa::Path::isCanonical(paths[i]) && !hasRoute(settings, paths[i])) {
                warn(report, {"bypass", shortened(client), i},
                     fmt::format("'{}' has no route, and is told 404", excerpt(paths[i])),
                     fmt::format(R"(write "comm": {{"routes": {{"{0}": "ipc://process{0}"}}}})", excerpt(paths[i])));
            }
        }
    }
}

/// Whether a process with these settings can use the one or the other of the locators.
class Reach {
public:
    explicit Reach(const CommSettings& settings)
        : m_locators(settings.routes, {kesa::commadapter::transport::makeIpcTransport(
                                          {settings.runDir, settings.socketMode, settings.socketGroup}, nullptr)})
    {}
    bool has(const kesa::url& locator) const { return m_locators.find(locator).has_value(); }
    bool hasAny(const std::vector<kesa::url>& locators) const
    {
        return std::any_of(locators.begin(), locators.end(), [this](const kesa::url& locator) { return has(locator); });
    }

private:
    const kesa::commadapter::Locators m_locators;
};

struct Fault {
    std::string_view text;
    std::string_view advice;
};

/// Of a locator that cannot be reached.
Fault whyOutOfReach(const kesa::url& locator)
{
    if (!locator.isAbsolute() && locator.toString().rfind("ipc:", 0) == 0) {
        return {"it needs two slashes after \"ipc:\"", R"(write "ipc://process/path")"};
    }
    if (!locator.isAbsolute()) {
        return {"it has no scheme, and its path no route", R"(name its route in "comm", "routes")"};
    }
    if (locator.scheme() != "ipc") {
        return {"processes are reached over \"ipc\" only", R"(write one such as "ipc://process/path")"};
    }
    if (!kesa::commadapter::transport::parseProcessAuthority(locator, "ipc")) {
        return {"it names no process", R"(write the name of a process, as in "ipc://process/path")"};
    }
    return {"its realm is not that of the run directory", "leave out '+' and the realm behind it"};
}

/// One that is passed over, unless the review of the document has said already what is wrong with it.
void reviewReach(const std::string& written, const kesa::url& locator, const DocumentPath& path, const Reach& reach,
                 ConfigReport& report)
{
    if (!locator.hasQueryOrFragment() && kesa::Path::isCanonical(locator.path()) && !reach.has(locator)) {
        const Fault fault = whyOutOfReach(locator);
        warn(report, path,
             fmt::format("'{}' cannot be reached from here, and is passed over: {}", excerpt(written), fault.text),
             std::string(fault.advice));
    }
}

/// The locators of configured services that nobody would use.
void reviewServiceLocators(const CommSettings& settings, ConfigReport& report)
{
    bool useRegistry = false;
    if (!report.root["use_registry"].get(useRegistry) && useRegistry) {
        return; // the services have no effect
    }
    const Reach reach(settings);
    const auto& services = report.root["services"].items();
    for (std::size_t i = 0; i < services.size(); ++i) {
        const auto& locators = services[i]["locators"].items();
        for (std::size_t j = 0; j < locators.size(); ++j) {
            const std::string written(locators[j].stringView());
            const kesa::url locator(written);
            if (locator.isAbsolute()) {
                reviewReach(written, locator.path().empty() ? kesa::url(written + "/check") : locator,
                            {"services", i, "locators", j}, reach, report);
            }
        }
    }
}

/// Of a locator of a registry that can be reached: nothing but a registry's own path leads to it.
void reviewRegistryPath(const kesa::url& locator, const DocumentPath& path, const Reach& reach, ConfigReport& report)
{
    constexpr std::string_view REGISTRY = kesa::serviceregistry::ServiceRegistryPex::SERVICE_PATH;
    if (locator.isAbsolute() && locator.path() != REGISTRY && reach.has(locator)) {
        warn(report, path,
             fmt::format("'{}' leads to no registry: the path of one is \"{}\"", excerpt(locator.toString()), REGISTRY),
             fmt::format("write \"{}://{}{}\"", locator.scheme(), excerpt(std::string(locator.authority())), REGISTRY));
    }
}

void reviewPartitions(const KesaConfig& config, const std::string& own, const CommSettings& settings,
                      ConfigReport& report)
{
    const Reach reach(settings);
    for (const auto& [partition, locators] : config.m_registryLocators) {
        const bool isList = report.root["service_registry_locators"].isArray();
        DocumentPath path = {"service_registry_locators"};
        if (!isList) {
            path.emplace_back(shortened(partition));
        }
        for (std::size_t i = 0; i < locators.size(); ++i) {
            DocumentPath element = path;
            element.emplace_back(i);
            reviewReach(locators[i].toString(), locators[i], element, reach, report);
            reviewRegistryPath(locators[i], element, reach, report);
        }
        if (reach.hasAny(locators)) {
            continue;
        }
        const bool isOwn =
            own.empty() || own == partition || (partition == "*" && config.m_registryLocators.count(own) == 0);
        const std::string text = "none of the locators leads anywhere, so a process ends at start";
        const std::string advice = R"(write "ipc://kesa-registryd/registry")";
        isOwn ? refuse(report, path, text, advice) : warn(report, path, text, advice);
    }
}

/// What ends a process at its start.
void reviewRegistry(const KesaConfig& config, const std::string& partition, const CommSettings& settings,
                    ConfigReport& report)
{
    if (!config.m_valid || !config.m_useRemoteRegistry) {
        return;
    }
    const auto& locators = config.m_registryLocators;
    if (std::find(config.m_backends.begin(), config.m_backends.end(), "comm") == config.m_backends.end()) {
        refuse(report, {"backends"},
               "none of them reaches the registry that \"use_registry\" asks for, so a process ends at start",
               "write [\"comm\"]");
    } else if (locators.empty() || (!partition.empty() && locators.count(partition) + locators.count("*") == 0)) {
        const std::string where = partition.empty() ? "" : " for partition \"" + excerpt(partition) + "\"";
        refuse(report, {"use_registry"},
               fmt::format("asks for a registry, but there are no locators{}, so a process ends at start", where),
               GOOD_LOCATORS);
    } else {
        if (partition.empty() && locators.count("*") == 0) {
            warn(report, {"use_registry"},
                 "asks for a registry, but there are no locators for partition \"*\": a process on a node without "
                 "locators of its own ends at start",
                 GOOD_LOCATORS);
        }
        reviewPartitions(config, partition, settings, report);
    }
}

} // namespace

CommSettings reviewSettings(const KesaConfig& config, const std::string& partition, ConfigReport& report)
{
    CommSettings settings = reviewComm(report);
    reviewGroup(settings, report);
    reviewBypass(config, settings, report);
    reviewRegistry(config, partition, settings, report);
    reviewServiceLocators(settings, report);
    return settings;
}

} // namespace kesactl
