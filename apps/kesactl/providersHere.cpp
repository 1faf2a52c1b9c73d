#include "providersHere.h"

#include "ProcessReport.h"
#include "RegistryView.h"
#include "Verdict.h"
#include "otherRunDirectories.h"
#include "processNames.h"
#include "processNotes.h"

#include <comm/wallClock.h>
#include <transport/Authority.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesactl {

bool isYoung(comm::TimeNs started)
{
    return comm::wallClock() - started < SETTLING;
}

namespace {

using kesa::commadapter::transport::encodeProcessName;
using util::config::Value;
using Name = RunDirectoryFacts::Name;

/// Of one that has nothing here by which it could be asked.
Unseen explainNameless(const std::string& process, const std::vector<Name>& names)
{
    const auto lost = std::find_if(names.begin(), names.end(), [&process](const Name& name) {
        return name.isLost && name.name == encodeProcessName(process);
    });
    if (lost != names.end()) {
        return {fmt::format("its files were removed from the run directory under it ({})", lost->holder),
                "restart it, and keep cleaners out of there"};
    }
    return {"it provides nothing here, so it does not listen",
            "a kesa::Runtime says by itself whether one does, to its own user; kesactl can ask it once it provides "
            "something"};
}

/// What those say that have not answered, as they provide nothing or a handler holds them.
void addNoted(ProcessesHere& found, const std::string& path, const std::string& only,
              const std::vector<ProcessReport>& reports, comm::TimeNs deadline, std::int64_t uid)
{
    for (const NotedProcess& note : findNotes(only, deadline)) {
        const bool hasAnswered = std::any_of(reports.begin(), reports.end(), [&note](const ProcessReport& report) {
            return report.pid == note.pid && report.answer.isDefined();
        });
        if (uid != -1 && note.uid != uid) {
            continue;
        }
        if (!only.empty() && note.isElsewhere) {
            found.elsewhere = fmt::format("elsewhere, in {}: {}; start it here, or let all who shall meet use one run "
                                          "directory (KESA_RUN_DIR)",
                                          note.runDirectory, note.who());
        }
        if (!note.isHere) {
            continue;
        }
        if (!only.empty() && !found.running) {
            found.running = RunningProcess{note.who(), note.pid};
        }
        if (const auto* const refusal = found.refused ? nullptr : note.refusalOf(path)) {
            found.refused =
                RefusedHere{fmt::format("{} {}", note.who(), refusalText(*refusal, "it" + asNamed(*refusal, path))),
                            AFTER_REFUSAL, forbiddenOf(note, *refusal), isForbidden(*refusal)};
        }
        if (const auto* const drop = note.dropOf(path); drop != nullptr && drop->when >= found.droppedAt) {
            found.dropped = fmt::format("{} {}", note.who(), dropText(*drop));
            found.droppedAt = drop->when;
        }
        if (hasAnswered) {
            continue;
        }
        for (const NotedProcess::Hold& hold : note.holds) {
            found.held.push_back({note.name(), note.pid, hold.loop, hold.holder, hold.time, note.user.empty()});
        }
        if (note.isWatched) { // so what it does not say is not so
            std::erase(found.nameless, fmt::format("{} ({})", note.process, note.pid));
            const bool isKnown = std::any_of(reports.begin(), reports.end(),
                                             [&note](const ProcessReport& report) { return report.pid == note.pid; });
            found.unseen = only.empty() || (isKnown && note.holds.empty()) ? found.unseen : Unseen();
        }
    }
}

/// Whoever has connected to `report`'s process and would not be found in the run directory, or only another one of its
/// name.
void addNameless(ProcessesHere& found, const ProcessReport& report, const std::vector<Name>& names)
{
    for (const Value& connection : report.answer["connections"].items()) {
        const std::string process(connection["process"].stringView());
        const std::int64_t pid = integerOf(connection["pid"]);
        const auto namesake =
            std::find_if(names.begin(), names.end(),
                         [encoded = encodeProcessName(process)](const Name& name) { return name.name == encoded; });
        const bool isHolder = namesake != names.end() && (namesake->holder == 0 || pid == 0 || namesake->holder == pid);
        if (connection["openedBy"] != "peer" || process.empty() || isHolder || process.rfind("kesactl-", 0) == 0) {
            continue;
        }
        std::string text = fmt::format("{} ({})", process, pid);
        if (namesake != names.end()) {
            found.refusedName = fmt::format("{} was refused its name, which process {} has", text, namesake->holder);
        } else if (std::find(found.nameless.begin(), found.nameless.end(), text) == found.nameless.end()) {
            found.nameless.push_back(std::move(text));
        }
    }
}

} // namespace

std::string whyApart(const Value& answer, const std::string& process)
{
    std::string reason;
    for (const Value& connection : answer["connections"].items()) {
        if (connection["openedBy"] == "self" && encodeProcessName(connection["process"].toText()) == process) {
            if (connection["connected"] == true) {
                return {};
            }
            reason = connection["reason"].stringView();
        }
    }
    return reason;
}

ProcessesHere askProcessesHere(const std::string& path, const std::string& only, comm::TimeNs deadline,
                               std::int64_t uid)
{
    RunDirectoryFacts directory(chosenRunDirectory());
    const std::vector<Name> names = directory.names;
    std::erase_if(directory.names, [&only](const Name& name) {
        const bool isReachable = name.hasSocket && name.connectError == 0;
        return name.isLost ||
               (only.empty() ? !isReachable
                             : name.name != encodeProcessName(only) || (name.holder == 0 && !isReachable));
    });
    ProcessesHere found;
    if (!only.empty() && directory.names.empty()) {
        found.unseen = explainNameless(only, names);
        addNoted(found, path, only, {}, deadline, uid);
        return found;
    }
    const std::vector<ProcessReport> reports = lookAtProcesses(directory, deadline);
    if (only.empty()) {
        found.replaced = findReplacedRealm(directory, reports);
    }
    for (const ProcessReport& report : reports) {
        const auto& services = report.answer["services"].items();
        if (std::find(services.begin(), services.end(), Value(path)) != services.end()) {
            found.provider =
                ProviderHere{report.plainName(), report.name, report.pid, isYoung(report.started()), report.answer};
        }
        for (const auto& hold : report.answer["holds"].items()) {
            found.held.push_back({report.plainName(), report.pid, hold["loop"].toText(), hold["holder"].toText(),
                                  integerOf(hold["heldMs"]) * comm::MILLISECOND, isOwnProcess(report.pid)});
        }
        addNameless(found, report, names);
        const Unreached& why = report.unreached;
        if (why.cause == "other-version" && found.otherVersion.text.empty()) {
            found.otherVersion = {fmt::format("{}: {}", report.plainName(), why.text), why.advice};
        }
        if (!only.empty()) {
            found.asked = report.answer;
            if (report.pid != 0 && directory.names.front().heirOf == 0) {
                found.running = RunningProcess{fmt::format("{} (process {})", only, report.pid), report.pid};
            }
            const bool isSilent = why.cause == "silent" || why.cause == "slow";
            found.unseen = isSilent ? Unseen{why.text, why.advice, true} : Unseen{report.advice, {}};
        }
    }
    addNoted(found, path, only, reports, deadline, uid);
    std::stable_partition(found.held.begin(), found.held.end(), [](const HeldProcess& each) { return each.isOwn; });
    return found;
}

} // namespace kesactl
