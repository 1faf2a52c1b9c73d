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
    Value::Array refused;
    for (const NotedProcess::Refusal& refusal : note->refused) {
        refused.emplace_back(
            Dictionary{{"path", refusal.path}, {"reason", refusal.reason}, {"when", refusal.when / comm::MILLISECOND}});
    }
    if (!refused.empty()) {
        answer.set("refused", std::move(refused));
    }
    Value::Array holds;
    for (const NotedProcess::Hold& hold : note->holds) {
        holds.emplace_back(
            Dictionary{{"loop", hold.loop}, {"holder", hold.holder}, {"heldMs", hold.time / comm::MILLISECOND}});
    }
    if (report.isSilent && !holds.empty()) {
        answer.set("holds", std::move(holds));
    }
    report.answer = Value(std::move(answer));
}

} // namespace kesactl
