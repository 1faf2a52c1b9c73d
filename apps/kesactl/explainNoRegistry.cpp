#include "explainNoRegistry.h"

#include "otherRunDirectories.h"
#include "providersHere.h"
#include "runDirectoryProblem.h"

#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <runtime/v02/config/KesaConfig.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <unistd.h>

namespace kesactl {
namespace {

using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaConfigAccessor;
using kesa::runtime::v02::KesaRuntime;
using kesa::serviceregistry::ServiceDef;
using kesa::serviceregistry::ServiceRegistryPex;

/// Processes meet there, or a registry has left its socket: so one is missed there, and the directory is no mistake.
bool isUsed(const RunDirectoryFacts& directory, const std::string& registry)
{
    return std::any_of(directory.names.begin(), directory.names.end(), [&registry](const auto& each) {
        return (each.holder != 0 && !each.isLost) || (each.name == registry && each.hasSocket);
    });
}

std::string join(const std::vector<ServiceDef>& services)
{
    constexpr std::size_t MOST = 10;
    std::string text;
    for (std::size_t i = 0; i < services.size() && i < MOST; ++i) {
        text += (i == 0 ? "" : ", ") + services[i].path.toString();
    }
    return services.size() > MOST ? fmt::format("{} and {} more", text, services.size() - MOST) : text;
}

} // namespace

Unreached explainNoRegistry(const kesa::url& registry, comm::TimeNs within)
{
    const comm::TimeNs deadline = comm::now() + within;
    Unreached why = explainUnreachable(registry, within);
    if (why.cause == "not-provided") {
        why.advice = registry.path() == ServiceRegistryPex::SERVICE_PATH
                         ? fmt::format("\"{}\" is no registry: name the process that is one", processOf(registry))
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
    if (const auto found = findProviderHere(ServiceRegistryPex::SERVICE_PATH, deadline)) {
        const std::string& here = found->name;
        why.cause = "other-registry";
        const char* const node = ::secure_getenv("KESA_NODE");
        why.text += fmt::format(", but \"{}\" is a registry here{}", here,
                                node == nullptr ? "" : fmt::format(" (KESA_NODE={} chooses the locator)", node));
        why.advice =
            fmt::format(R"(write "service_registry_locators": {{"*": ["ipc://{}/registry"]}} for all who shall )"
                        "meet, or start the registry as \"{}\"",
                        here, processOf(registry));
        return why;
    }
    const auto others = otherDirectoriesOf(processOf(registry));
    why.text += others.empty() ? "" : "; a registry runs in " + namesOf(others);
    const RunDirectoryFacts here(chosenRunDirectory());
    const std::string first = here.beforeStart(processOf(registry));
    if (others.empty()) {
        why.cause = "no-registry";
        why.advice = first + "start kesa-registryd, or set KESA_RUN_DIR to the directory it uses";
    } else if (isUsed(here, processOf(registry))) {
        why.cause = "no-registry";
        why.advice = fmt::format("{}start kesa-registryd here, or {}", first, howToMeetIn(others.front()));
    } else {
        why.cause = "other-run-directory";
        why.advice = fmt::format("{}, or {}start a registry here", howToMeetIn(others.front()), first);
    }
    return why;
}

Verdict explainWithoutRegistry(const apps::RegistryPlace& place, const std::string& path, comm::TimeNs within)
{
    const KesaConfig config = KesaConfig::readOr("kesactl-" + std::to_string(::getpid()), KesaRuntime::WITH_REGISTRYD);
    const KesaConfigAccessor accessor(config);
    Verdict verdict{"no-registry", place.problem, "kesactl check-config explains the document", {}};
    if (!accessor.isValid() || accessor.useRemoteRegistry()) {
        return verdict;
    }
    const std::vector<ServiceDef>& services = accessor.getServices();
    const auto found = std::find_if(services.begin(), services.end(),
                                    [&path](const ServiceDef& service) { return service.path.toString() == path; });
    if (found != services.end() && !found->locators.empty()) {
        const kesa::url& locator = found->locators.front();
        Unreached why = explainUnreachable(locator, within);
        if (why.cause == "not-provided") {
            why.advice = fmt::format("either the locator has a typo, or {0} was refused: its log says so, and the type "
                                     "in its document (kesactl check-config --process {0}) may differ from its own; or "
                                     "it has yet to provide it",
                                     processOf(locator));
        }
        const std::string where = fmt::format("{} has it at {}", place.source, locator.toString());
        return why.cause == "slow"
                   ? Verdict{std::string(Verdict::WORKS), where + ", and its process provides it", {}, {}}
                   : Verdict{why.cause, fmt::format("{}: {}", where, why.text), why.advice, {}};
    }
    verdict.text = fmt::format("{} asks for no registry, so only what it has itself is there: {}", place.source,
                               services.empty() ? "no service" : join(services));
    verdict.advice = R"(write "use_registry": true and "service_registry_locators": {"*": )"
                     R"(["ipc://kesa-registryd/registry"]}, or name another document with KESA_CONFIG)";
    return verdict;
}

} // namespace kesactl
