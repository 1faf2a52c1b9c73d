#include "OtherPartition.h"

#include "explainNoRegistry.h"
#include "processNames.h"

#include <transport/Authority.h>

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace kesactl {
namespace {

using util::config::Value;

/// The connection that a process has opened to that of a locator; undefined when it has not.
const Value& connectionTo(const Value& answer, const kesa::url& locator)
{
    static const Value NONE;
    for (const Value& connection : answer["connections"].items()) {
        if (connection["openedBy"] == "self" &&
            kesa::commadapter::transport::encodeProcessName(connection["process"].toText()) == processOf(locator)) {
            return connection;
        }
    }
    return NONE;
}

} // namespace

std::string OtherPartition::text() const
{
    return isConnected ? fmt::format("it is connected to that of partition \"{}\"", name)
                       : fmt::format("it is of partition \"{}\", whose registry at {} it is not connected to{}{}", name,
                                     registry.toString(), reason.empty() ? "" : ": ", reason);
}

std::string OtherPartition::advice() const
{
    return fmt::format("{}whoever shall meet it has to be of that partition, by KESA_NODE or \"node_domain_mapping\"; "
                       "this process is of \"{}\"",
                       isConnected ? "" : howToStart(registry) + "; ", own);
}

OtherPartition findOtherPartition(const Value& answer, const apps::RegistryPlace& place)
{
    const auto isTried = [&answer](const kesa::url& locator) { return connectionTo(answer, locator).isDefined(); };
    OtherPartition found;
    if (std::any_of(place.locators.begin(), place.locators.end(), isTried)) {
        return found;
    }
    for (const auto& [partition, locators] : place.others) {
        for (const kesa::url& locator : locators) {
            const Value& connection = connectionTo(answer, locator);
            const bool isConnected = connection["connected"] == true;
            if (connection.isDefined() && (found.name.empty() || (isConnected && !found.isConnected))) {
                found = {partition, place.partition, locator, isConnected,
                         std::string(connection["reason"].stringView())};
            }
        }
    }
    return found;
}

std::string partitionOfRegistry(const std::string& process, const apps::RegistryPlace& place)
{
    for (const auto& [partition, locators] : place.others) {
        if (std::any_of(locators.begin(), locators.end(),
                        [&process](const kesa::url& locator) { return processOf(locator) == process; })) {
            return partition;
        }
    }
    return {};
}

} // namespace kesactl
