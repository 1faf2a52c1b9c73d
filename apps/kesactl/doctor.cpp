#include "doctor.h"

#include "DoctorPage.h"
#include "Failure.h"
#include "OtherPartition.h"
#include "RunDirectoryFacts.h"
#include "System.h"
#include "doctor_runDirectory.h"
#include "doctor_tooSlow.h"
#include "explainNoRegistry.h"
#include "locateComplaints.h"
#include "mayBeHidden.h"
#include "options.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "policyNow.h"
#include "processNames.h"
#include "providersHere.h"
#include "registryPolicy.h"
#include "replacedRealm.h"
#include "reviewSettings.h"
#include "runDirectoryProblem.h"

#include <CLI/CLI.hpp>
#include <common/RegistryPlace.h>
#include <kesa/runtime/v02/KesaRuntime.h>
#include <protocol/Frame.h>
#include <rules/usersAndGroups.h>
#include <runtime/v02/config/reviewDocument.h>
#include <transport/EndpointWatch.h>
#include <transport/RunDirectory.h>
#include <util/shellWord.h>

#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>

namespace kesactl {
namespace {

using kesa::access::groupName;
using kesa::access::userName;
using kesa::commadapter::transport::EndpointWatch;
using kesa::commadapter::transport::RunDirectory;
using kesa::runtime::v02::Complaint;
using kesa::runtime::v02::ConfigReport;
using kesa::runtime::v02::KesaConfig;
using kesa::runtime::v02::KesaRuntime;
using kesa::runtime::v02::Severity;
using util::config::Dictionary;
using util::config::Value;
using Name = RunDirectoryFacts::Name;

void addMachine(DoctorPage& page)
{
    utsname system{};
    ::uname(&system);
    page.add("kesactl", fmt::format("{}, protocol {} to {}", KESA_VERSION, kesa::commadapter::protocol::LOWEST_VERSION,
                                    kesa::commadapter::protocol::HIGHEST_VERSION));
    page.add("kernel",
             fmt::format("{} {}", static_cast<const char*>(system.sysname), static_cast<const char*>(system.release)));
    page.add("user", fmt::format("{}, group {}", userName(::geteuid()), groupName(::getegid())));
    Dictionary environment;
    for (const char* const name : {"KESA_CONFIG", "KESA_CONFIG_DIR", "KESA_RUN_DIR", "XDG_RUNTIME_DIR", "KESA_NODE"}) {
        const char* const value = ::secure_getenv(name);
        page.addLine(fmt::format("${}", name), value == nullptr ? "not set"
                                               : *value == '\0' ? "empty, which counts as not set"
                                                                : value);
        environment.set(name, value == nullptr ? Value(nullptr) : Value(value));
    }
    page.facts.set("environment", environment);
}

void addShortage(DoctorPage& page)
{
    if (const std::string why = EndpointWatch::findShortage(); !why.empty()) {
        page.findings.push_back("processes find one that starts up to a second later than they could: " + why);
    }
}

struct Configuration {
    bool isFaulty;            ///< the findings say why
    std::string runDirectory; ///< that the document names, or empty
};

Configuration addConfiguration(DoctorPage& page, const std::string& process)
{
    constexpr std::size_t MOST_COMPLAINTS = 5;
    ConfigReport report;
    const KesaConfig config = KesaConfig::readOr(process, KesaRuntime::WITH_REGISTRYD, &report);
    reviewDocument(report);
    const std::string runDirectory = reviewSettings(config, "", report).runDir;
    locateComplaints(report);
    std::stable_sort(report.complaints.begin(), report.complaints.end(),
                     [](const Complaint& a, const Complaint& b) { return a.severity > b.severity; });
    page.add("configuration",
             report.file.empty() ? "no file: the built-in document counts"
             : config.m_valid
                 ? report.file
                 : report.file + ", which is not valid: a process goes on with defaults, which ask for no registry");
    std::size_t count = 0;
    for (const auto& complaint : report.complaints) {
        if (complaint.severity != Severity::eHINT && ++count <= MOST_COMPLAINTS) {
            page.findings.push_back(complaint.sentence(report.file) +
                                    (report.root.isDefined() ? "" : "; correct it and start the processes again"));
        }
    }
    if (count > MOST_COMPLAINTS) {
        page.findings.push_back(fmt::format("{} more complaints; see kesactl check-config", count - MOST_COMPLAINTS));
    }
    return {report.firstError() != nullptr, runDirectory};
}

void addRegistry(DoctorPage& page, const apps::RegistryPlace& place, const Configuration& configuration)
{
    const std::string locator = place.locators.empty() ? "none" : place.locators.front().toString();
    page.addLine("registry", place.asksForNone
                                 ? fmt::format("none: {} asks for none, so what it has itself is all that is known: {}",
                                               place.source, pathsOf(place.services))
                                 : util::config::excerpt(locator));
    page.facts.set("registry", locator);
    if (!place.problem.empty() && !place.asksForNone && !configuration.isFaulty) { // else it is said already
        page.findings.push_back(place.problem);
    }
}

/// What the registry says.
struct Answer {
    bool isThere = false;
    std::optional<Services> services; ///< absent: it does not answer
    std::string silent;               ///< the process that should, and does not
    std::string problem;
    comm::TimeNs after = 0; ///< from the question to the answer
};

/// The registry is asked from the beginning on, while the processes are.
struct RegistryQuestion {
    comm::TimeNs begin = comm::now();
    std::optional<System> system;
    std::unique_ptr<RegistryView> view; ///< null when there is nobody to ask
    std::string problem;                ///< why this process cannot ask

    explicit RegistryQuestion(const apps::RegistryPlace& place)
    {
        if (!place.problem.empty()) {
            return;
        }
        try {
            system.emplace();
            view = system->view("**");
        } catch (const Failure& failure) {
            problem = failure.sentence();
        }
    }
};

Answer lookForRegistry(const apps::RegistryPlace& place, comm::TimeNs deadline)
{
    Answer answer;
    if (!place.problem.empty()) {
        return answer;
    }
    // Where nobody listens now, there is nothing to wait for.
    std::vector<Unreached> found;
    for (const kesa::url& locator : place.locators) {
        found.push_back(explainNoRegistry(locator, std::max<comm::TimeNs>(deadline - comm::now(), 0)));
        if (found.back().cause == "slow") {
            break;
        }
    }
    answer.isThere = found.back().cause == "slow";
    if (!answer.isThere) {
        const std::string locator = place.locators.front().toString();
        answer.silent = processOf(place.locators.front());
        answer.problem =
            fmt::format("{} {}: {}", found.front().isSomebodyThere ? "no answer of the registry at" : "no registry at",
                        locator, found.front().sentence());
    }
    return answer;
}

Answer askRegistry(const RegistryQuestion& question, const apps::RegistryPlace& place, comm::TimeNs deadline)
{
    Answer answer;
    answer.problem = question.problem;
    if (!question.view) {
        return answer;
    }
    if (question.view->answeredAt() == comm::NEVER) {
        answer = lookForRegistry(place, deadline);
    }
    const bool hasAnswered = question.view->answeredAt() != comm::NEVER; // perhaps meanwhile
    if (!answer.isThere && !hasAnswered) {
        return answer;
    }
    answer = {};
    try {
        answer.services = question.view->list(deadline, true).services;
        answer.after = question.view->answeredAt() - question.begin;
    } catch (const Failure& failure) {
        answer.problem = failure.sentence();
    }
    return answer;
}

/// What processes here provide, and the registry does not know. It was asked after them, and nothing is said while they
/// may not have found each other yet, or of who is at the registry of another partition.
void addUnknown(DoctorPage& page, const std::vector<ProcessReport>& reports, const apps::RegistryPlace& place,
                const Services& known, bool isPolicyThere)
{
    const std::string registry = processOf(place.locators.front());
    if (std::any_of(reports.begin(), reports.end(), [&registry](const ProcessReport& report) {
            return report.name == registry && isYoung(report.started());
        })) {
        return;
    }
    std::vector<std::string> found;
    for (const ProcessReport& report : reports) {
        const auto& services = report.answer["services"].items();
        const auto unknown = std::find_if(services.begin(), services.end(),
                                          [&known](const Value& path) { return known.count(path.toText()) == 0; });
        if (unknown == services.end() || isYoung(report.started())) {
            continue;
        }
        if (const OtherPartition other = findOtherPartition(report.answer, place); !other.name.empty()) {
            if (!other.isConnected) {
                found.push_back(fmt::format("{} ({}) provides {} for nobody: {}; {}", report.plainName(), report.pid,
                                            unknown->toText(), other.text(), howToStart(other.registry)));
            }
        } else if (const std::string apart = whyApart(report.answer, registry);
                   !apart.empty() || !mayBeHidden(report.pid, isPolicyThere)) {
            found.push_back(fmt::format("{} ({}) provides {} here, and the registry does not know it{}; kesactl why {} "
                                        "says more",
                                        report.plainName(), report.pid, unknown->toText(),
                                        apart.empty() ? "" : ": it is not connected to it: " + apart,
                                        util::shellWord(unknown->toText())));
        }
    }
    page.find(found, "processes provide what the registry does not know");
}

/// Not if another finding has said why it does not answer.
void addAnswer(DoctorPage& page, const apps::RegistryPlace& place, const RunDirectoryFacts& facts, const Answer& answer)
{
    if (!place.problem.empty()) {
        return;
    }
    page.addLine("it answers", answer.services
                                   ? fmt::format("{} service{}{}", answer.services->size(),
                                                 answer.services->size() == 1 ? "" : "s", lateness(answer.after))
                                   : "nothing");
    if (answer.services) {
        page.facts.set("services", std::uint64_t{answer.services->size()});
        page.facts.set("answered_after_ms", answer.after / comm::MILLISECOND);
    }
    const bool isLostOne = std::any_of(facts.names.begin(), facts.names.end(), [&answer](const Name& name) {
        return name.isLost && name.name == answer.silent;
    });
    const bool isUnusable = !findProblem(facts, "").text.empty();
    if (!answer.problem.empty() && !isLostOne && !isUnusable) {
        page.findings.push_back(answer.problem);
    }
}

Value addPolicy(DoctorPage& page, const apps::RegistryPlace& place, comm::TimeNs deadline)
{
    Value policy = askPolicy(place.locators.front(), deadline);
    if (!policy.isDefined()) {
        return policy;
    }
    page.addLine("its policy", policyText(policy));
    page.facts.set("policy", policy);
    if (const std::string failure = policyFailure(policy); !failure.empty()) {
        page.findings.push_back(
            fmt::format("the policy of the registry: {}; mend the document, then have it read again "
                        "(systemctl reload kesa-registryd, or SIGHUP)",
                        failure));
    }
    return policy;
}

/// Where the document divides the processes among several.
void addPartitions(DoctorPage& page, const apps::RegistryPlace& place, const RunDirectoryFacts& facts)
{
    if (place.others.empty()) {
        return;
    }
    page.add("partition", place.partition);
    Value::Array others;
    for (const auto& [partition, locators] : place.others) {
        const std::string locator = locators.empty() ? "none" : locators.front().toString();
        const bool isHere = !locators.empty() && isHeld(facts, processOf(locators.front()));
        page.addLine("  of " + partition, fmt::format("{}{}", util::config::excerpt(locator),
                                                      isHere ? ", which runs here" : ", which does not run here"));
        others.emplace_back(Dictionary{{"partition", partition}, {"registry", locator}, {"runs_here", isHere}});
    }
    page.facts.set("other_partitions", std::move(others));
}

bool diagnose(const CommonOptions& options)
{
    const std::string process = "kesactl-" + std::to_string(::getpid());
    DoctorPage page;
    addMachine(page);
    const Configuration configuration = addConfiguration(page, process);
    const RunDirectory runDirectory(configuration.runDirectory);
    const apps::RegistryPlace place = apps::findRegistryPlace(process, KesaRuntime::WITH_REGISTRYD);
    addRegistry(page, place, configuration);
    const RunDirectoryFacts facts(runDirectory.path());
    const RegistryQuestion question(place);
    const comm::TimeNs deadline = options.deadline();
    const comm::TimeNs rest = deadline - timeToExplain(deadline);
    const auto reports = askAll(facts, deadline - rest);
    const Answer answer = askRegistry(question, place, std::max(deadline, comm::now() + rest));
    addRunDirectory(page, runDirectory, facts, reports, answer.silent);
    std::optional<PolicyNow> policyNow;
    if (answer.services) {
        policyNow.emplace(place.locators.front(), options.laterDeadline());
    }
    addNoted(page, reports, facts, answer.services ? &*answer.services : nullptr, policyNow ? &*policyNow : nullptr,
             deadline);
    addTooSlow(page, reports, deadline);
    addOthers(page, facts);
    addAnswer(page, place, facts, answer);
    const Value policy = answer.services ? addPolicy(page, place, options.laterDeadline()) : Value();
    addPartitions(page, place, facts);
    if (answer.services && findReplacedRealm(facts, reports).text.empty()) { // else that is why
        addUnknown(page, reports, place, *answer.services, policy["hasRules"] == true);
    }
    addShortage(page);
    print(options.isJson ? page.asJson() : wrapped(page.asText()));
    return !page.findings.empty();
}

} // namespace

void addDoctor(CLI::App& app, int& exitCode)
{
    CLI::App* const command =
        app.add_subcommand("doctor", "Looks at all by which processes find each other here, and says what is wrong.");
    command->footer("It changes nothing, except that the registry sees a guest. Exit code: 0 when nothing is wrong, 1 "
                    "when something is.");
    const auto options = std::make_shared<CommonOptions>();
    addCommonOptions(*command, *options, "How long the registry and the processes may take to answer; all at once.");
    command->callback([&exitCode, options] { exitCode = diagnose(*options) ? 1 : 0; });
}

} // namespace kesactl
