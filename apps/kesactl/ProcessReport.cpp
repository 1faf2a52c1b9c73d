#include "ProcessReport.h"

#include "Verdict.h"
#include "askProcesses.h"
#include "missingRight.h"
#include "otherRunDirectories.h"
#include "processNames.h"
#include "runDirectoryProblem.h"

#include <backend/readCommSettings.h>
#include <comm/wallClock.h>
#include <rules/usersAndGroups.h>
#include <transport/RunDirectory.h>
#include <util/config/Dictionary.h>
#include <util/shellWord.h>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>

namespace kesactl {
namespace {

using util::config::Dictionary;
using util::config::Value;
using Name = RunDirectoryFacts::Name;

/// Somebody has the name, or answers under it, as far as this user may know.
bool isThere(const Name& name)
{
    const bool mayAnswer = name.connectError == 0 || name.connectError == EACCES;
    return name.holder != 0 || (name.hasSocket && name.kind.empty() && mayAnswer);
}

void explain(ProcessReport& report, ExitCode exitCode, std::string_view note, std::string_view advice)
{
    report.exitCode = exitCode;
    report.note = note;
    report.advice = report.pid == 0 ? fmt::format("{} {}", report.plainName(), advice)
                                    : fmt::format("{} ({}) {}", report.plainName(), report.pid, advice);
}

/// What is known without asking.
ProcessReport reportOf(const Name& name, const std::string& directory, bool isPatient)
{
    const pid_t pid = name.holder != 0 ? name.holder : name.listener;
    ProcessReport report{name.name, pid, ProcessFacts(pid), {}, {}, 0, {}};
    if (name.heirOf != 0) {
        explain(report, ExitCode::eFAILED, "child of a dead process",
                fmt::format("has the name only since it is a child of process {}, which has ended, and nobody answers "
                            "under it; end it, then start {} again",
                            name.heirOf, report.plainName()));
    } else if (report.facts.isStopped && !isPatient) {
        explainStopped(report);
    } else if (!name.hasSocket) {
        explain(
            report, ExitCode::eFAILED, "no socket",
            "has its name, but its socket was removed, so nobody can reach it; restart it, and keep cleaners out of "
            "the run directory");
    } else if (name.connectError == EACCES) {
        explain(report, ExitCode::eFAILED, "not allowed",
                fmt::format("cannot be asked: this user may not connect to {}/{}.sock ({}); {}", directory, name.name,
                            name.rights,
                            howToGetRight(fmt::format("{}/{}.sock", directory, name.name),
                                          "let a group of both use it: \"socket_group\" and \"socket_mode\" of that "
                                          "process")));
    }
    return report;
}

bool isHeldOrSilent(const Unreached& why)
{
    return why.cause == "silent" || why.cause == "slow" || why.cause == "held";
}

void add(ProcessReport& report, const Said& said)
{
    report.answer = said.answer;
    report.after = said.after;
    if (said.answer.isDefined()) {
        return;
    }
    report.facts = ProcessFacts(report.pid); // it may have been stopped meanwhile
    if (report.facts.isStopped) {
        explainStopped(report);
        return;
    }
    const bool isSilent = isHeldOrSilent(said.why);
    report.unreached = said.why;
    report.exitCode = isSilent ? ExitCode::eTIMED_OUT : ExitCode::eFAILED;
    report.note = said.why.cause == "other-version"  ? "other version"
                  : said.why.cause == "garbage"      ? "other program"
                  : said.why.cause == "not-provided" ? "does not say"
                                                     : "does not answer";
    report.advice = said.why.cause == "not-provided"
                        ? fmt::format("{0} takes part, but does not say what it is: it is of an earlier version, or "
                                      "not of this library; kesactl list --provider {1} shows what it provides",
                                      report.plainName(), util::shellWord(report.plainName()))
                        : fmt::format("{}: {}", report.plainName(), said.why.sentence());
}

/// Where else processes have names.
std::string elsewhere(const std::string& chosen)
{
    std::vector<RunDirectoryFacts> others = otherRunDirectories(chosen);
    std::erase_if(others, [](const RunDirectoryFacts& other) { return holdersOf(other, false).empty(); });
    return others.empty() ? "" : "; processes run in " + namesOf(others);
}

std::string textOf(const Value& value)
{
    return value.isDefined() ? value.toText() : "-";
}

std::string orNothing(const std::string& text)
{
    return text.empty() ? "-" : text;
}

} // namespace

void explainStopped(ProcessReport& report)
{
    explain(report, ExitCode::eTIMED_OUT, "stopped",
            report.facts.isTraced
                ? "does not answer; it is stopped by its debugger; go on there"
                : fmt::format("does not answer; it is stopped (SIGSTOP); {}", howToContinue(report.pid)));
}

std::string documentCheck(const Value& answer, const std::string& process)
{
    const std::string name = util::shellWord(process);
    const std::int64_t uid = integerOf(answer["uid"]);
    const std::string as = // what root may read is no sign that the process may
        ::geteuid() == 0 && uid > 0 ? fmt::format("runuser -u {} -- ", kesa::access::userName(static_cast<uid_t>(uid)))
                                    : "";
    return answer["document"].isString() ? fmt::format("{}kesactl check-config {} --process {}", as,
                                                       util::shellWord(answer["document"].toText()), name)
                                         : fmt::format("kesactl check-config --process {} in its environment", name);
}

std::string ProcessReport::plainName() const
{
    return kesactl::plainName(name);
}

std::string ProcessReport::processId() const
{
    return pid != 0 ? std::to_string(pid) : textOf(answer["pid"]);
}

std::string ProcessReport::user() const
{
    unsigned uid = 0;
    return facts.isThere ? facts.user : answer["uid"].get(uid) ? "-" : kesa::access::userName(uid);
}

std::string ProcessReport::executable() const
{
    return orNothing(facts.isThere ? facts.executable : std::string(answer["executable"].stringView()));
}

comm::TimeNs ProcessReport::started() const
{
    return facts.isThere ? facts.started : timeOf(answer["started"]);
}

std::string ProcessReport::version() const
{
    const std::string said(answer["version"].stringView());
    if (answer.isDefined() && !isSilent && said.empty() && facts.library.empty()) {
        return "none: it is not of this library";
    }
    return orNothing(said + (said.empty() || facts.library.empty() ? "" : ", ") + facts.library);
}

std::vector<std::string> ProcessReport::holds() const
{
    std::vector<std::string> texts;
    for (const Value& hold : answer["holds"].items()) {
        texts.push_back(fmt::format("{} has held its {} for {} s", hold["holder"].toText(), hold["loop"].toText(),
                                    integerOf(hold["heldMs"]) / 1000));
    }
    return texts;
}

std::string ProcessReport::number(std::string_view member) const
{
    return textOf(answer[member]);
}

std::string ProcessReport::asJson() const
{
    Dictionary all = answer.dictionary();
    if (!answer.isDefined()) {
        all.set("process", plainName());
        all.set("note", note);
        all.set("advice", advice);
        if (facts.isThere) {
            all.set("pid", pid);
            all.set("uid", facts.uid);
            all.set("executable", facts.executable);
            all.set("started", facts.started / comm::MILLISECOND);
        }
    }
    all.set("user", user());
    return Value(std::move(all)).toText();
}

RunDirectoryFacts findRunDirectory()
{
    const kesa::commadapter::transport::RunDirectory place(kesa::commadapter::readCommSettings().runDir);
    RunDirectoryFacts facts(place.path());
    if (const RunDirectoryProblem problem = findProblem(facts, place.source()); !problem.text.empty()) {
        throw Failure{ExitCode::eFAILED, problem.text, 0, problem.advice};
    }
    if (facts.error != 0 && facts.names.empty()) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("no process is here: the run directory {} ({}) is not there yet, the first process "
                                  "makes it{}; kesactl doctor looks for others",
                                  facts.path, place.source(), elsewhere(facts.path))};
    }
    std::erase_if(facts.names, [](const Name& name) { return !isThere(name); });
    if (facts.names.empty()) {
        throw Failure{ExitCode::eFAILED,
                      fmt::format("no process has a name in the run directory {} ({}); one that provides nothing needs "
                                  "none{}; kesactl doctor looks for other directories",
                                  facts.path, place.source(), elsewhere(facts.path))};
    }
    return facts;
}

std::vector<ProcessReport> lookAtProcesses(const RunDirectoryFacts& directory, comm::TimeNs deadline, bool isPatient)
{
    std::vector<ProcessReport> reports;
    std::vector<std::string> asked;
    for (const Name& name : directory.names) {
        reports.push_back(reportOf(name, directory.path, isPatient));
        if (reports.back().note.empty()) {
            asked.push_back(name.name);
        }
    }
    if (!asked.empty()) {
        const auto said = askProcesses(asked, deadline);
        for (ProcessReport& report : reports) {
            if (report.note.empty()) {
                add(report, said.at(report.name));
            }
        }
    }
    return reports;
}

bool isCredible(comm::TimeNs time)
{
    constexpr comm::TimeNs YEAR_2000 = 946'684'800 * comm::SECOND;
    return time > 0 && (time >= YEAR_2000 || comm::wallClock() < YEAR_2000);
}

comm::TimeNs timeOf(const Value& milliseconds)
{
    constexpr std::int64_t MOST = INT64_MAX / comm::MILLISECOND;
    std::int64_t number = 0;
    return milliseconds.get(number) || number < 0 || number > MOST ? 0 : number * comm::MILLISECOND;
}

std::string asLocalTime(comm::TimeNs time, bool isShort)
{
    const auto partsOf = [](comm::TimeNs when) {
        const std::time_t seconds = when / comm::SECOND;
        std::tm parts{};
        ::localtime_r(&seconds, &parts);
        return parts;
    };
    if (!isCredible(time)) {
        return "-";
    }
    const std::tm parts = partsOf(time);
    if (!isShort) {
        return fmt::format("{:%F %T}", parts);
    }
    const bool isToday = fmt::format("{:%F}", parts) == fmt::format("{:%F}", partsOf(comm::wallClock()));
    return isToday ? fmt::format("{:%T}", parts) : fmt::format("{:%F}", parts);
}

} // namespace kesactl
