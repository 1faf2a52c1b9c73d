#include "explainNoRegistry.h"

#include "OtherPartition.h"
#include "ProcessReport.h"
#include "System.h"
#include "askProcesses.h"
#include "otherRunDirectories.h"
#include "processNames.h"
#include "providersHere.h"
#include "runDirectoryProblem.h"

#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <util/shellWord.h>

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

namespace kesactl {
namespace {

using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::ServiceRegistryPex;
using util::config::Value;

/// Processes meet there, or a registry has left its socket: so one is missed there, and the directory is no mistake.
bool isUsed(const RunDirectoryFacts& directory, const std::string& registry)
{
    return std::any_of(directory.names.begin(), directory.names.end(), [&registry](const auto& each) {
        return (each.holder != 0 && !each.isLost) || (each.name == registry && each.hasSocket);
    });
}

/// Another process is a registry here: that of another partition of the document, or one under another name.
Unreached explainOther(const ProviderHere& found, const kesa::url& registry, Unreached why)
{
    const char* const node = ::secure_getenv("KESA_NODE");
    const std::string byNode = node == nullptr ? "" : fmt::format(" (KESA_NODE={} chooses the locator)", node);
    const apps::RegistryPlace place =
        apps::findRegistryPlace("kesactl-" + std::to_string(::getpid()), KesaRuntime::WITH_REGISTRYD);
    if (const std::string other = partitionOfRegistry(found.authority, place); !other.empty()) {
        why.cause = "no-registry";
        why.text += fmt::format(", and this process is of partition \"{}\"{}; \"{}\", which runs here, is the registry "
                                "of partition \"{}\"",
                                place.partition, byNode, found.name, other);
        why.advice = fmt::format(
            "{}{}; or, if this process shall be of the other partition, {}",
            RunDirectoryFacts(chosenRunDirectory()).beforeStart(processOf(registry)), howToStart(registry),
            node == nullptr ? R"(set KESA_NODE, or change "node_domain_mapping")" : "unset or change KESA_NODE");
        return why;
    }
    why.cause = "other-registry";
    why.text += fmt::format(", but \"{}\" is a registry here{}", found.name, byNode);
    why.advice = fmt::format(R"(write "service_registry_locators": {{"*": ["ipc://{}/registry"]}} for all who shall )"
                             "meet, or start the registry as \"{}\"",
                             found.authority, plainProcessOf(registry));
    return why;
}

/// Of a service that the document has.
Verdict explainConfigured(const std::string& source, const ServiceDef& service, comm::TimeNs within)
{
    const kesa::url& locator = service.locators.front();
    Unreached why = explainUnreachable(locator, within);
    if (why.cause == "not-provided" && why.isSomebodyThere) {
        const Value answer = askProcesses({processOf(locator)}, comm::now() + within).at(processOf(locator)).answer;
        why.advice = fmt::format("either the locator has a typo, or {} was refused: its log says so, and the type in "
                                 "its document ({}) may differ from its own; or it has yet to provide it",
                                 plainProcessOf(locator), documentCheck(answer, plainProcessOf(locator)));
    } else if (why.cause == "bad-locator") {
        why.advice =
            fmt::format("write one of this host in the document, such as \"ipc://PROCESS{}\"", service.path.toString());
    }
    const std::string where = fmt::format("{} has it at {}", source, locator.toString());
    return why.cause == "slow" ? Verdict{std::string(Verdict::WORKS), where + ", and its process provides it", {}, {}}
                               : Verdict{why.cause, fmt::format("{}: {}", where, why.text), why.advice, {}};
}

} // namespace

std::string howToStart(const kesa::url& registry)
{
    const std::string process = plainProcessOf(registry);
    return process == "kesa-registryd"
               ? "start kesa-registryd"
               : fmt::format("start {0}, which the locator names (a program of your own, or kesa-registryd --name {1})",
                             process, util::shellWord(process));
}

Unreached explainNoRegistry(const kesa::url& registry, comm::TimeNs within)
{
    Unreached why = explainUnreachable(registry, within);
    if (why.cause == "not-provided" && why.isSomebodyThere) {
        why.text += " within the time limit";
        why.advice = registry.path() == ServiceRegistryPex::SERVICE_PATH
                         ? fmt::format("give it more with --timeout, should it have just started; else \"{}\" is no "
                                       "registry: name the process that is one",
                                       plainProcessOf(registry))
                         : fmt::format("a registry's path is \"{}\": correct it in \"service_registry_locators\"",
                                       ServiceRegistryPex::SERVICE_PATH);
    }
    if (why.cause != "nobody-listens") {
        return why;
    }
    if (const RunDirectoryProblem problem = findProblem(); !problem.text.empty()) {
        const auto others = otherDirectoriesOf(processOf(registry));
        return {"bad-run-directory", problem.text + (others.empty() ? "" : "; a registry runs in " + namesOf(others)),
                problem.advice};
    }
    const comm::TimeNs deadline = comm::now() + within; // that nobody listens was known at once
    if (const auto found = askProcessesHere(ServiceRegistryPex::SERVICE_PATH, {}, deadline).provider) {
        return explainOther(*found, registry, std::move(why));
    }
    const auto others = otherDirectoriesOf(processOf(registry));
    why.text += others.empty() ? "" : "; a registry runs in " + namesOf(others);
    const RunDirectoryFacts here(chosenRunDirectory());
    const std::string first = here.beforeStart(processOf(registry));
    if (others.empty()) {
        why.cause = "no-registry";
        why.advice = first + howToStart(registry) + ", or set KESA_RUN_DIR to the directory it uses";
    } else if (isUsed(here, processOf(registry))) {
        why.cause = "no-registry";
        why.advice = fmt::format("{}{} here, or {}", first, howToStart(registry), howToMeetIn(others.front()));
    } else {
        why.cause = "other-run-directory";
        why.advice = fmt::format("{}, or {}start a registry here", howToMeetIn(others.front()), first);
    }
    return why;
}

Verdict explainWithoutRegistry(const apps::RegistryPlace& place, const std::string& path, comm::TimeNs within)
{
    if (!place.asksForNone) {
        return {"no-registry", place.problem, "kesactl check-config explains the document", {}};
    }
    const comm::TimeNs deadline = comm::now() + within;
    const auto found = std::find_if(place.services.begin(), place.services.end(), [&path](const ServiceDef& service) {
        return service.path.toString() == path && !service.locators.empty();
    });
    if (found != place.services.end()) {
        return explainConfigured(place.source, *found, within);
    }
    const std::string has = fmt::format("{} asks for no registry, so only what it has itself is there: {}",
                                        place.source, pathsOf(place.services));
    std::optional<ProviderHere> registry; // which a document that has no services either was hardly meant to do without
    if (place.services.empty()) {
        registry = askProcessesHere(ServiceRegistryPex::SERVICE_PATH, {}, deadline).provider;
    }
    const auto provider = registry ? std::nullopt : askProcessesHere(path, {}, deadline).provider;
    if (provider) {
        return {
            "no-registry",
            fmt::format("{}; {} ({}) provides it here", has, provider->name, provider->pid),
            fmt::format(
                R"(add {{"path": "{0}", "type": "pex", "locators": ["ipc://{1}{0}"]}} to "services" in the documents )"
                "of those who use it",
                path, provider->authority),
            {}};
    }
    if (registry) {
        return {"no-registry",
                fmt::format("{}; {} ({}) is a registry here", has, registry->name, registry->pid),
                fmt::format(R"(write "use_registry": true and "service_registry_locators": {{"*": )"
                            R"(["ipc://{}/registry"]}} there; kesactl check-config finds keys that are mistyped)",
                            registry->authority),
                {}};
    }
    return {"no-registry",
            has,
            R"(add it to "services" with its locator; or, in the documents of all who shall meet, write )"
            R"("use_registry": true and "service_registry_locators": {"*": ["ipc://kesa-registryd/registry"]})",
            {}};
}

} // namespace kesactl
