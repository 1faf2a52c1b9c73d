#include "silentProcess.h"

#include "Verdict.h"
#include "processNotes.h"

#include <transport/Authority.h>
#include <util/config/Dictionary.h>

#include <fmt/format.h>

#include <set>
#include <utility>

namespace kesactl {
namespace {

using kesa::commadapter::transport::encodeProcessName;
using util::config::Dictionary;
using util::config::Value;

bool isOfSought(const Value& connection, const std::string& wanted)
{
    return connection["openedBy"] == Value("peer") &&
           (connection["process"] == Value(wanted) || std::to_string(integerOf(connection["pid"])) == wanted);
}

/// `connection` of `peer`, seen from its other end.
Value turned(const Value& connection, const ProcessReport& peer)
{
    Dictionary other = connection.dictionary();
    other.set("process", peer.plainName());
    other.set("pid", peer.answer["pid"]);
    other.set("uid", peer.answer["uid"]);
    other.set("openedBy", "self");
    return Value(std::move(other));
}

ProcessReport beginReport(const std::string& process, pid_t pid)
{
    ProcessReport report{encodeProcessName(process), pid, ProcessFacts(pid), {}, {}, 0, {}};
    report.isSilent = true;
    if (report.facts.isStopped) {
        explainStopped(report);
    }
    return report;
}

/// `first`: one of its connections, as its peer tells.
Value answerOf(const ProcessReport& report, const Value& first, Value::Array connections)
{
    Dictionary answer;
    answer.set("process", first["process"]);
    answer.set("pid", first["pid"]);
    answer.set("uid", first["uid"]);
    if (report.facts.isThere) {
        answer.set("executable", report.facts.executable);
        answer.set("started", report.facts.started / comm::MILLISECOND);
    }
    answer.set("note", report.note.empty() ? "provides nothing" : report.note);
    answer.set("serviceCount", 0);
    answer.set("services", Value::Array());
    answer.set("connectionCount", connections.size());
    answer.set("connections", std::move(connections));
    return Value(std::move(answer));
}

Value asValue(const NotedProcess::Hold& hold)
{
    return Value(Dictionary{{"loop", hold.loop}, {"holder", hold.holder}, {"heldMs", hold.time / comm::MILLISECOND}});
}

void setIfAny(Dictionary& answer, const char* member, Value::Array all)
{
    if (!all.empty()) {
        answer.set(member, std::move(all));
    }
}

/// What it has been refused, has ended, or is too slow for, and what holds loops of its own.
void addMistakes(Dictionary& answer, const NotedProcess& note)
{
    Value::Array refused;
    for (const NotedProcess::Refusal& refusal : note.refused) {
        refused.emplace_back(
            Dictionary{{"path", refusal.path}, {"reason", refusal.reason}, {"when", refusal.when / comm::MILLISECOND}});
    }
    setIfAny(answer, "refused", std::move(refused));
    Value::Array dropped;
    for (const NotedProcess::Dropped& drop : note.dropped) {
        dropped.emplace_back(Dictionary{{"path", drop.path}, {"when", drop.when / comm::MILLISECOND}});
    }
    setIfAny(answer, "dropped", std::move(dropped));
    Value::Array tooSlow;
    for (const NotedProcess::TooSlow& slow : note.tooSlow) {
        tooSlow.emplace_back(Dictionary{
            {"path", slow.path}, {"loop", slow.loop}, {"when", slow.when / comm::MILLISECOND}, {"times", slow.times}});
    }
    setIfAny(answer, "tooSlow", std::move(tooSlow));
    Value::Array ownHolds;
    for (const NotedProcess::Hold& hold : note.ownHolds) {
        Dictionary own = asValue(hold).dictionary();
        own.set("waiting", hold.waiting);
        ownHolds.emplace_back(std::move(own));
    }
    setIfAny(answer, "ownHolds", std::move(ownHolds));
}

} // namespace

SilentProcess findSilentProcess(const RunDirectoryFacts& directory, const std::string& wanted, comm::TimeNs deadline)
{
    SilentProcess silent;
    Value first;
    Value::Array connections;
    std::set<std::int64_t> others;
    for (const ProcessReport& peer : lookAtProcesses(directory, deadline)) {
        if (!peer.note.empty()) {
            silent.notAsked.push_back(fmt::format("{} ({})", peer.plainName(), peer.note));
        }
        for (const Value& connection : peer.answer["connections"].items()) {
            if (!isOfSought(connection, wanted)) {
                continue;
            }
            if (!silent.report) {
                first = connection;
                silent.report =
                    beginReport(connection["process"].toText(), static_cast<pid_t>(integerOf(connection["pid"])));
            } else if (connection["pid"] != first["pid"]) { // nobody owns such a name
                others.insert(integerOf(connection["pid"]));
                continue;
            }
            connections.push_back(turned(connection, peer));
        }
    }
    if (silent.report) {
        silent.report->answer = answerOf(*silent.report, first, std::move(connections));
    }
    for (const std::int64_t pid : others) {
        silent.namesakes.push_back(std::to_string(pid));
    }
    return silent;
}

SilentProcess findNotedProcess(const std::string& wanted, comm::TimeNs deadline)
{
    SilentProcess silent;
    for (const NotedProcess& note : findNotes({}, deadline)) {
        if (!note.isHere || (note.process != wanted && std::to_string(note.pid) != wanted)) {
            continue;
        }
        if (silent.report) {
            silent.namesakes.push_back(std::to_string(note.pid));
            continue;
        }
        silent.report = beginReport(note.process, note.pid);
        const Value self(Dictionary{{"process", note.process}, {"pid", note.pid}, {"uid", silent.report->facts.uid}});
        silent.report->answer = answerOf(*silent.report, self, {});
        if (note.isMoved) {
            Dictionary answer = silent.report->answer.dictionary();
            answer.set("isMoved", true);
            silent.report->answer = Value(std::move(answer));
        }
    }
    return silent;
}

void addNote(ProcessReport& report)
{
    const auto note = noteOf(report.pid);
    if (!note || !report.answer.isDefined()) {
        return;
    }
    Dictionary answer = report.answer.dictionary();
    addMistakes(answer, *note);
    Value::Array holds;
    for (const NotedProcess::Hold& hold : note->holds) {
        holds.push_back(asValue(hold));
    }
    if (report.isSilent && !holds.empty()) {
        answer.set("holds", std::move(holds));
    }
    report.answer = Value(std::move(answer));
}

} // namespace kesactl
