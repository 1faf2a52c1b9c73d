#include "RegistryPlace.h"

#include <kesa/commadapter/checkOwnLocator.h>
#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <obr/ErrorStorage.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>
#include <util/config/FrameworkProvider.h>

#include <fmt/format.h>

#include <algorithm>

namespace apps {

using kesa::commadapter::checkOwnLocator;
using kesa::commadapter::OwnLocator;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaConfigAccessor;

namespace {

std::string join(const std::vector<kesa::url>& locators)
{
    std::string text;
    for (const kesa::url& locator : locators) {
        text.append(text.empty() ? "" : ", ").append(locator.toString());
    }
    return text;
}

/// A runtime that could reach none of them would not start.
std::string complaintAbout(const RegistryPlace& place, const std::string& process)
{
    for (const kesa::url& locator : place.locators) {
        const OwnLocator own = checkOwnLocator(process, locator);
        if (own.state != OwnLocator::State::eUNREACHABLE) {
            return {};
        }
    }
    return fmt::format("no registry locator of {} ({}) can be reached from here; write one such as "
                       "\"ipc://kesa-registryd/registry\", and one of another run directory only without its realm",
                       place.source, util::config::excerpt(join(place.locators)));
}

} // namespace

RegistryPlace findRegistryPlace(const std::string& process, const std::string& fallbackDocument)
{
    ConfigReport report;
    const KesaConfig config = KesaConfig::readOr(process, fallbackDocument, &report);
    const KesaConfigAccessor accessor(config);
    RegistryPlace place;
    place.source = report.file.empty() ? "the built-in document" : report.file;
    std::string partition;
    if (util::config::FrameworkProvider::getNodenameForProcess(process, partition)) {
        place.problem = "the partition of this node cannot be found out: " + obr::ErrorStorage::takeReason();
        place.endsProcess = true;
        return place;
    }
    if (!accessor.isValid()) {
        place.problem = fmt::format("the configuration cannot be read: {}; see kesactl check-config",
                                    report.firstError()->sentence(report.file));
        return place;
    }
    if (!accessor.useRemoteRegistry()) {
        place.problem = fmt::format("{} asks for no registry; write \"use_registry\": true and "
                                    "\"service_registry_locators\": {{\"*\": [\"ipc://kesa-registryd/registry\"]}}",
                                    place.source);
        place.asksForNone = true;
        place.services = accessor.getServices();
        return place;
    }
    accessor.getNodeDomainMapping(partition);
    place.partition = partition;
    place.others.insert(config.m_registryLocators.begin(), config.m_registryLocators.end());
    place.others.erase(place.others.count(partition) != 0 ? partition : "*");
    place.locators = accessor.getRegistryLocatorsByPartition(partition, false).value_or(std::vector<kesa::url>());
    const std::vector<std::string>& backends = accessor.getBackends();
    if (std::find(backends.begin(), backends.end(), "comm") == backends.end()) {
        place.problem = fmt::format("{}: none of \"backends\" reaches the registry that \"use_registry\" asks for; "
                                    "write [\"comm\"]",
                                    place.source);
    } else if (place.locators.empty()) {
        place.problem = fmt::format("{} has no registry locators for the partition \"{}\", and none for \"*\"; add "
                                    "them to \"service_registry_locators\"",
                                    place.source, util::config::excerpt(partition));
    } else {
        place.problem = complaintAbout(place, process);
    }
    place.endsProcess = !place.problem.empty();
    return place;
}

} // namespace apps
