#include "HostCheck.h"

#include <common/RegistryPlace.h>
#include <kesa/commadapter/checkOwnLocator.h>
#include <tracing/Sink.h>

#include <fmt/format.h>

namespace registryd {

using kesa::commadapter::OwnLocator;

std::string listOf(const std::vector<kesa::url>& locators)
{
    std::string list;
    for (const kesa::url& locator : locators) {
        list.append(list.empty() ? "" : ", ").append(locator.toString());
    }
    return list;
}

HostCheck checkHost(const std::string& process, const std::string& fallbackDocument)
{
    // What it says of the document the start says again, and an error is the answer's.
    const tracing::Silence words("KESA_RUNTIME_CONFIG");
    const tracing::Silence places("KESA_UTIL_CONFIG");
    const apps::RegistryPlace place = apps::findRegistryPlace(process, fallbackDocument);
    if (!place.problem.empty()) {
        return {ExitCode::eCONFIGURATION, place.problem, {}};
    }
    HostCheck check;
    for (const kesa::url& locator : place.locators) {
        const OwnLocator own = kesa::commadapter::checkOwnLocator(process, locator);
        switch (own.state) {
        case OwnLocator::State::eUNREACHABLE:
        case OwnLocator::State::eOTHERS:
            break;
        case OwnLocator::State::eNAME_HELD:
            return {ExitCode::eNAME_HELD, own.why, {}};
        case OwnLocator::State::eMISSET:
            return {ExitCode::eCONFIGURATION, fmt::format("{}: {}", place.source, own.why), {}};
        case OwnLocator::State::eUNUSABLE:
            return {ExitCode::eFAILED, own.why, {}};
        case OwnLocator::State::eCLAIMABLE:
            check.locators.push_back(locator);
            break;
        }
    }
    if (check.locators.empty()) {
        return {ExitCode::eCONFIGURATION,
                fmt::format("{} says that the registry is at {}, which is not this process (\"{}\"); give a name of "
                            "those with --name, or add \"ipc://{}/registry\" to \"service_registry_locators\"",
                            place.source, listOf(place.locators), process, process),
                {}};
    }
    return check;
}

} // namespace registryd
