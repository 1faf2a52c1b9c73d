// status: one page of one process, for a person.
#include "ProcessReport.h"
#include "System.h"
#include "Verdict.h"
#include "commands.h"
#include "options.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "policyNow.h"
#include "processNames.h"
#include "processNotes.h"
#include "programOf.h"
#include "registryPolicy.h"
#include "silentProcess.h"

#include <CLI/CLI.hpp>
#include <kesa/serviceregistry/ServiceRegistryPex.h>
#include <obr/visible.h>
#include <rules/usersAndGroups.h>
#include <transport/Authority.h>
#include <util/config/Dictionary.h>
#include <util/nearestName.h>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace kesactl {

using obr::visible;
namespace {

using util::config::Value;
using Name = RunDirectoryFacts::Name;
using Rows = std::vector<std::vector<std::string>>;

struct StatusArguments {
    std::string process;
    CommonOptions common;
};

/// By its name, or by its number where no name is like that. Of two of one name, of which one has lost its files, the
/// other unless the number is that of the lost one.
std::optional<Name> findProcess(const RunDirectoryFacts& directory, const std::string& wanted)
{
    const std::string encoded = kesa::commadapter::transport::encodeProcessName(wanted);
    for (const Name& name : directory.names) {
        if (name.name == wanted || name.name == encoded) {
            return name;
        }
    }
    for (const Name& name : directory.names) {
        if (name.holder != 0 && std::to_string(name.holder) == wanted) {
            return name;
        }
    }
    return std::nullopt;
}

/// `silent`: who could not be asked about it.
Failure noSuchProcess(const RunDirectoryFacts& directory, const std::string& wanted, const SilentProcess& silent)
{
    std::vector<std::string> known;
    for (const Name& name : directory.names) {
        known.push_back(plainName(name.name));
    }
    const std::string_view meant = util::nearestName(wanted, {known.begin(), known.end()});
    const ProgramOf program = findProgramOf(wanted);
    std::string text = fmt::format("no process '{}' in {}; {}", wanted, directory.path,
                                   !program.text.empty() ? program.text
                                   : meant.empty()       ? "kesactl ps lists those that are there"
                                                         : fmt::format("did you mean '{}'?", meant));
    if (!silent.notAsked.empty()) {
        text += fmt::format("; one that provides nothing may be known to {}, which cannot be asked",
                            fmt::join(silent.notAsked, ", "));
    }
    const auto others = otherDirectoriesOf(kesa::commadapter::transport::encodeProcessName(wanted));
    return Failure{ExitCode::eFAILED, text, 0,
                   others.empty() ? ""
                                  : fmt::format("one of that name runs in {}; to look there, {}", namesOf(others),
                                                howToMeetIn(others.front()))};
}

void addLine(std::string& page, std::string_view name, std::string_view value)
{
    page += fmt::format("{:<14} {}\n", name, visible(value));
}

/// "3", or "1200, of which 1000 follow".
std::string countOf(const ProcessReport& report, std::string_view counted, std::string_view named)
{
    const std::string count = report.number(counted);
    const std::string shown = std::to_string(report.answer[named].arraySize());
    return count == shown ? count : fmt::format("{}, of which {} follow", count, shown);
}

std::string nameOf(const Value& connection)
{
    const std::string_view name = connection["process"].stringView();
    return name.empty() ? "-" : std::string(name);
}

std::string stateOf(const Value& connection)
{
    if (connection["connected"] == Value(true)) {
        if (connection["held"] == Value(true)) {
            return fmt::format("does not take its answers; {} bytes of it wait", connection["unreadBytes"].toText());
        }
        unsigned cut = 0;
        const bool hasCuts = !connection["cutStreams"].get(cut) && cut > 0;
        return hasCuts ? fmt::format("connected; too slow for {} {}", cut, cut == 1 ? "stream" : "streams")
                       : "connected";
    }
    const std::string_view reason = connection["reason"].stringView();
    return fmt::format("not connected{}{}", reason.empty() ? "" : ": ", reason);
}

std::vector<std::string> rowOf(const Value& connection, const std::string& process)
{
    const auto text = [&connection](const char* member) {
        const Value& value = connection[member];
        return value.isDefined() ? value.toText() : std::string("-");
    };
    unsigned uid = 0;
    const bool hasUser = !connection["uid"].get(uid);
    return {nameOf(connection),
            text("pid"),
            hasUser ? kesa::access::userName(uid) : "-",
            connection["openedBy"].stringView() == "peer" ? nameOf(connection) : process,
            asLocalTime(timeOf(connection["since"]), true),
            text("openRequests"),
            text("queuedBytes"),
            stateOf(connection)};
}

void addConnections(std::string& page, const ProcessReport& report)
{
    addLine(page, "connections", countOf(report, "connectionCount", "connections"));
    Rows rows = {{"  PEER", "PID", "USER", "OPENED BY", "SINCE", "REQUESTS", "QUEUED", "STATE"}};
    for (const Value& connection : report.answer["connections"].items()) {
        rows.push_back(rowOf(connection, report.plainName()));
        rows.back().front().insert(0, "  ");
    }
    page += rows.size() > 1 ? aligned(rows) : "";
}

void addTroubles(std::string& page, const ProcessReport& report)
{
    if (report.areServicesClosed()) {
        addLine(page, "closed",
                fmt::format("its services are, to other users, since its rules cannot be read; {} says why",
                            report.documentCheck()));
    }
    for (const std::string& hold : report.holds()) {
        addLine(page, "held", hold);
    }
    for (const Value& refusal : report.answer["refused"].items()) {
        addLine(page, "refused",
                fmt::format("{} at {}: {}{}", refusal["path"].toText(), asLocalTime(timeOf(refusal["when"])),
                            refusal["reason"].toText(), refusal["since"].stringView()));
    }
    for (const Value& drop : report.answer["dropped"].items()) {
        addLine(page, "dropped",
                fmt::format("{} at {}: it ended that registration itself, before a registry had answered it",
                            drop["path"].toText(), asLocalTime(timeOf(drop["when"]))));
    }
    for (const Value& slow : report.answer["tooSlow"].items()) {
        addLine(page, "too slow",
                fmt::format("{} {}, last at {}: its {} takes that more slowly than it comes", slow["path"].toText(),
                            integerOf(slow["times"]) == 1 ? "once" : fmt::format("{} times", slow["times"].toText()),
                            asLocalTime(timeOf(slow["when"])),
                            slow["loop"] == Value("") ? "I/O loop" : fmt::format("loop '{}'", slow["loop"].toText())));
    }
    for (const Value& hold : report.answer["ownHolds"].items()) {
        addLine(page, "own loop",
                fmt::format("{} has held '{}' for {} s; {} {} for it", hold["holder"].toText(), hold["loop"].toText(),
                            integerOf(hold["heldMs"]) / 1000, hold["waiting"].toText(),
                            integerOf(hold["waiting"]) == 1 ? "request waits" : "requests wait"));
    }
}

void addAnswer(std::string& page, const ProcessReport& report)
{
    const Value& answer = report.answer;
    if (answer["document"].isString()) {
        addLine(page, "document", answer["document"].toText());
    }
    addLine(page, "run directory",
            fmt::format("{}, realm {}", answer["runDirectory"].toText(), answer["realm"].toText()));
    addLine(page, "instance", answer["instance"].toText());
    if (const Value& policy = answer["policy"]; policy.isDefined()) {
        addLine(page, "policy", policyText(policy));
        if (const std::string failure = policyFailure(policy); !failure.empty()) {
            addLine(page, "policy", failure);
        }
    }
    addTroubles(page, report);
    addLine(page, "queued", report.number("queuedBytes") + " bytes");
    addLine(page, "services", countOf(report, "serviceCount", "services"));
    for (const Value& path : answer["services"].items()) {
        page += "  " + visible(path.toText()) + '\n';
    }
    addConnections(page, report);
}

std::string pageOf(const ProcessReport& report)
{
    std::string page;
    addLine(page, "process", report.plainName());
    addLine(page, "pid", report.processId());
    addLine(page, "user", report.user());
    addLine(page, "executable",
            report.executable() + (report.facts.isReplaced ? ", replaced since it started; restart it" : ""));
    addLine(page, "library", report.version());
    addLine(page, "since", asLocalTime(report.started()));
    if (report.isSilent) {
        addTroubles(page, report);
        addLine(page, "services",
                report.number("serviceCount") +
                    (report.answer["isMoved"] == Value(true)
                         ? fmt::format(": {}; {}", IS_MOVED, AFTER_MOVE)
                         : ": it does not listen, so it cannot be asked; its connections are as their other ends see "
                           "them"));
        addConnections(page, report);
    } else if (report.answer.isDefined()) {
        addAnswer(page, report);
    }
    return page;
}

/// What the page of a silent process does not show.
void addOthers(std::string& page, const SilentProcess& silent)
{
    if (!silent.namesakes.empty()) {
        addLine(page, "namesakes",
                fmt::format("{}: they have this name, too; kesactl status PID shows one of them",
                            fmt::join(silent.namesakes, ", ")));
    }
    if (!silent.notAsked.empty()) {
        addLine(page, "not asked",
                fmt::format("{}; it may have connections to these as well", fmt::join(silent.notAsked, ", ")));
    }
}

struct Found {
    ProcessReport report;
    SilentProcess silent; ///< what else is known of one that cannot be asked
};

/// Where nobody can be asked, those are left that say by themselves that they are there.
Found findReport(const std::string& wanted, comm::TimeNs deadline)
try {
    RunDirectoryFacts directory = findRunDirectory();
    if (const auto name = findProcess(directory, wanted)) {
        directory.names = {*name};
        return {lookAtProcesses(directory, deadline).front(), {}};
    }
    SilentProcess silent = findSilentProcess(directory, wanted, deadline);
    if (!silent.report) {
        throw noSuchProcess(directory, wanted, silent);
    }
    return {*silent.report, std::move(silent)};
} catch (const Failure&) {
    SilentProcess noted = findNotedProcess(wanted, deadline);
    if (!noted.report) {
        throw;
    }
    return {*noted.report, std::move(noted)};
}

/// Of one that is a registry, what its policy is.
void addPolicy(ProcessReport& report, const CommonOptions& options)
{
    constexpr std::string_view PATH = kesa::serviceregistry::ServiceRegistryPex::SERVICE_PATH;
    const auto& services = report.answer["services"].items();
    if (std::find(services.begin(), services.end(), Value(PATH)) == services.end()) {
        return;
    }
    try {
        const System system(false);
        util::config::Dictionary answer = report.answer.dictionary();
        if (const Value policy =
                askPolicy(kesa::url(fmt::format("ipc://{}{}", report.name, PATH)), options.laterDeadline());
            policy.isDefined()) {
            answer.set("policy", policy);
            report.answer = Value(std::move(answer));
        }
    } catch (const Failure&) { // nothing can be asked with such a document, and all else is said
    }
}

/// What the policy says now of what it has forbidden.
void addSince(ProcessReport& report, const CommonOptions& options)
{
    Value::Array refused = report.answer["refused"].items();
    const auto isForbidden = [](const Value& refusal) { return refusal["reason"].stringView().starts_with("403: "); };
    if (std::none_of(refused.begin(), refused.end(), isForbidden)) {
        return;
    }
    try {
        const System system(false);
        if (system.registry() == nullptr) {
            return;
        }
        PolicyNow policy(*system.registry(), options.laterDeadline());
        for (Value& refusal : refused) {
            if (isForbidden(refusal)) {
                util::config::Dictionary dated = refusal.dictionary();
                dated.set("since",
                          policy
                              .since({report.plainName(), std::int64_t{report.facts.uid}, refusal["path"].toText(),
                                      timeOf(refusal["when"]), refusal["reason"].toText()})
                              .text);
                refusal = Value(std::move(dated));
            }
        }
        util::config::Dictionary answer = report.answer.dictionary();
        answer.set("refused", std::move(refused));
        report.answer = Value(std::move(answer));
    } catch (const Failure&) { // all else is said
    }
}

void printStatus(const StatusArguments& arguments)
{
    auto [report, silent] = findReport(arguments.process, arguments.common.deadline());
    addNote(report);
    addSince(report, arguments.common);
    addPolicy(report, arguments.common);
    std::string page = pageOf(report);
    addOthers(page, silent);
    print(arguments.common.isJson ? report.asJson() + '\n' : fitted(page));
    if (!report.note.empty()) {
        throw Failure{report.exitCode, report.advice};
    }
}

} // namespace

void addStatus(CLI::App& app)
{
    auto arguments = std::make_shared<StatusArguments>();
    CLI::App* const command = app.add_subcommand(
        "status", "Shows what a process is, what it provides and whom it is connected to; needs no registry.");
    command->add_option("PROCESS", arguments->process, "Its name, or its process id.")->required()->type_name("");
    addCommonOptions(*command, arguments->common, "How long it may take to answer.");
    command->callback([arguments] { printStatus(*arguments); });
}

} // namespace kesactl
