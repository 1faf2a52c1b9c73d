#include "explainNoRegistry.h"

#include "askProcesses.h"
#include "otherRunDirectories.h"
#include "runDirectoryProblem.h"

#include <kesa/runtime/v02/KesaConfigAccessor.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <obr/ErrorStorage.h>
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
using util::config::Value;

/// A process of the chosen run directory that provides the registry's path; empty: there is none.
std::string findRegistryHere(comm::TimeNs deadline)
{
    std::vector<std::string> names;
    for (const auto& name : RunDirectoryFacts(chosenRunDirectory()).names) {
        if (!name.isLost && name.hasSocket && name.connectError == 0) {
            names.push_back(name.name);
        }
    }
    if (names.empty()) {
        return {};
    }
    for (const auto& [name, said] : askProcesses(names, deadline)) {
        const auto& services = said.answer["services"].items();
        if (std::find(services.begin(), services.end(), Value(ServiceRegistryPex::SERVICE_PATH)) != services.end()) {
            return name;
        }
    }
    return {};
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
    if (why.cause != "nobody-listens") {
        return why;
    }
    if (const RunDirectoryProblem problem = findProblem(); !problem.text.empty()) {
        const auto others = otherDirectoriesOf(processOf(registry));
        return {"bad-run-directory", problem.text + (others.empty() ? "" : "; a registry runs in " + namesOf(others)),
                problem.advice};
    }
    if (const std::string here = findRegistryHere(deadline); !here.empty()) {
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
    why.cause = others.empty() ? "no-registry" : "other-run-directory";
    why.advice = others.empty() ? "start kesa-registryd, or set KESA_RUN_DIR to the directory it uses"
                                : fmt::format("{}, or start a registry here", howToMeetIn(others.front()));
    why.text += others.empty() ? "" : "; a registry runs in " + namesOf(others);
    return why;
}

Verdict explainWithoutRegistry(const apps::RegistryPlace& place, const std::string& path)
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
        const Unreached why = explainUnreachable(locator);
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
