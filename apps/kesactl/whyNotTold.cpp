#include "whyNotTold.h"

#include "OtherPartition.h"
#include "ProcessFacts.h"
#include "RunDirectoryFacts.h"
#include "missingRight.h"
#include "otherRunDirectories.h"
#include "processNames.h"
#include "processNotes.h"
#include "programOf.h"
#include "registryPolicy.h"
#include "seenByProvider.h"
#include "whyAbsent.h"

#include <transport/Authority.h>
#include <util/config/Dictionary.h>
#include <util/nearestName.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <algorithm>
#include <optional>

namespace kesactl {
namespace {

using util::config::Value;

constexpr const char* IS_IT_KEPT =
    "is what trackService, kesa::use or follow returns kept? It ends what it stands for when it is destroyed";

/// Why a process that asks for nothing may use services nevertheless.
constexpr const char* WHILE_THEY_WAIT = "(kesa::get and connect ask only while they wait)";

/// Of a process that is there, and has asked the registry for nothing.
Verdict explainSilentOne(const std::string& name, pid_t pid, const apps::RegistryPlace& place, const Value& answer,
                         const std::string& process)
{
    const kesa::url& registry = place.locators.front();
    if (ProcessFacts(pid).isStopped) {
        return {"stopped",
                fmt::format("{} (process {}) is stopped, and not connected to the registry", name, pid),
                howToContinue(static_cast<pid_t>(pid)) + ", or end its debugger",
                {}};
    }
    if (const std::string missing = missingRight(pid, registry); !missing.empty()) {
        return {"rights",
                fmt::format("{} (process {}) cannot ask the registry: {}", name, pid, missing),
                "run it with that group, or set \"socket_group\" and \"socket_mode\" of the registry's process",
                {}};
    }
    const std::string so =
        fmt::format("{} (process {}) asks this registry for nothing at the moment {}", name, pid, WHILE_THEY_WAIT);
    if (const OtherPartition partition = findOtherPartition(answer, place); !partition.name.empty()) {
        return {"not-asked", fmt::format("{}: {}", so, partition.text()), partition.advice(), {}};
    }
    return {"not-asked",
            so,
            fmt::format("{}; or see with kesactl check-config --process {} in its environment what its document says "
                        "of the registry and of its partition",
                        IS_IT_KEPT, util::shellWord(process)),
            {}};
}

/// Of one that has no name here, by what it says of itself; nothing when no process says to have that name.
std::optional<Verdict> explainNoted(const std::string& process, const apps::RegistryPlace& place)
{
    std::optional<Verdict> elsewhere;
    for (const NotedProcess& note : findNotes(process)) {
        if (note.isHere && !note.holds.empty()) {
            const NotedProcess::Hold& hold = note.holds.front();
            return explainHeld({note.name(), note.pid, hold.loop, hold.holder, hold.time, note.user.empty()},
                               process + " does not see it");
        }
        if (note.isHere) {
            return explainSilentOne(note.name(), note.pid, place, {}, process);
        }
        if (note.isElsewhere) {
            elsewhere = {"other-run-directory",
                         fmt::format("{} runs, but in {}, so that it does not meet this registry", note.who(),
                                     note.runDirectory),
                         "start it here, or let all who shall meet use one run directory (KESA_RUN_DIR)",
                         {}};
        }
    }
    return elsewhere;
}

/// Of a process that has asked the registry for nothing.
Verdict explainUnknown(const std::string& process, const apps::RegistryPlace& place, const Value& answer)
{
    const RunDirectoryFacts facts(chosenRunDirectory());
    std::vector<std::string> names;
    for (const auto& name : facts.names) {
        if (name.holder == 0) {
            continue;
        }
        if (name.name == kesa::commadapter::transport::encodeProcessName(process)) {
            return explainSilentOne(process, name.holder, place, answer, process);
        }
        names.push_back(plainName(name.name));
    }
    if (auto noted = explainNoted(process, place)) {
        return *noted;
    }
    const std::string so =
        fmt::format("no process {} is known to the registry, or has its name in {}", process, facts.path);
    if (ProgramOf program = findProgramOf(process); !program.text.empty()) {
        return {"no-such-process", fmt::format("{}; {}", so, program.text), std::move(program.advice), {}};
    }
    const std::string_view meant = util::nearestName(process, {names.begin(), names.end()});
    return {"no-such-process",
            so,
            meant.empty()
                ? "start it; or it runs as another user, asks for nothing and provides nothing: such a one is "
                  "known to that user alone"
                : fmt::format("did you mean \"{}\"?", meant),
            {}};
}

/// What it says of its own loops, where nothing is in the way; may be empty.
std::string ownTroubles(const std::optional<NotedProcess>& note, const std::string& path)
{
    std::string text;
    if (const auto* const slow = note ? note->slownessOf(path) : nullptr) {
        text += "; " + slownessText(*slow);
    }
    if (const auto* const hold = note ? note->worstOwnHold() : nullptr) {
        text += "; " + ownHoldText(*hold);
    }
    return text;
}

/// What there is between a process that is told and the provider, where nothing is in the way.
std::string useOf(const SeenByProvider& seen, const std::string& provider)
{
    std::string cut =
        seen.cutStreams == 0
            ? ""
            : fmt::format("; {} of its streams ended as \"too slow\" since it has connected", seen.cutStreams);
    if (!seen.isKnown || seen.isAsked) {
        return cut;
    }
    return seen.isConnected
               ? fmt::format(
                     "; it is connected to {}, and asks it for nothing at the moment, or has given up, or waits "
                     "to ask again after it was too slow, which its log says ([follow]){}",
                     provider, cut)
               : fmt::format("; it has not connected to {}: it tracks the service and does not resolve it, or what "
                             "kesa::use or connect has returned was dropped",
                             provider);
}

/// Of a process that is told of the service.
Verdict explainTold(const Value& explanation, const std::string& process, std::int64_t pid, const std::string& path,
                    comm::TimeNs deadline)
{
    const kesa::url locator(explanation["holder"]["record"]["locators"][0].toText());
    if (const std::string missing = missingRight(pid, locator); !missing.empty()) {
        return {"rights",
                fmt::format("{} (process {}) is told of it, but {}", process, pid, missing),
                "run it with that group, or set \"socket_group\" and \"socket_mode\" of the provider",
                {}};
    }
    const std::string who = fmt::format("{} (process {})", process, pid);
    const std::string provider = explanation["holder"]["provider"].toText();
    const SeenByProvider seen = askProviderAbout(processOf(locator), process, pid, deadline);
    if (seen.isTooSlow()) {
        return {"too-slow",
                fmt::format("the registry tells {} of it, but {}", who, seen.slownessText(provider)),
                AFTER_SLOWNESS,
                {}};
    }
    const auto note = noteOf(pid);
    const auto* const slow = note ? note->slownessOf(path) : nullptr;
    if (slow != nullptr && sinceWall(slow->when) < RECENTLY) {
        return {"too-slow",
                fmt::format("the registry tells {} of it, but {}", who, slownessText(*slow)),
                afterSlowness(*slow),
                {}};
    }
    return {std::string(Verdict::WORKS),
            fmt::format("the registry tells {} of it{}{}", who, useOf(seen, provider), ownTroubles(note, path)),
            {},
            {}};
}

/// What the record has instead of the metadata that is asked for with `key`.
std::string explainKey(const Value& record, const std::string& key)
{
    const Value& metainfo = record["metainfo"];
    if (const Value& value = metainfo[key]; value.isDefined()) {
        return fmt::format("its query asks for another \"{}\" than the record's, which is {}", key, value.toText());
    }
    std::vector<std::string_view> keys;
    for (const auto& [name, value] : metainfo.dictionary()) {
        keys.emplace_back(name);
    }
    const std::string_view meant = util::nearestName(key, keys);
    return fmt::format("its query asks for \"{}\", which the record does not have{}", key,
                       meant.empty() ? "" : fmt::format("; did you mean \"{}\"?", meant));
}

/// Of a process that may not see it, and what to do.
Verdict explainUnseen(const std::string& process, std::int64_t pid, bool hasPolicy, const std::string& path,
                      const Value& may)
{
    const ProcessFacts facts(static_cast<pid_t>(pid));
    const std::string who = facts.user.empty() ? process : fmt::format("{} of {}", process, facts.user);
    const std::string ask = mayCommand(process, facts.isThere ? std::int64_t{facts.uid} : -1, "see", path);
    if (hasPolicy) {
        const auto isIts = [&facts](const Value& each) { return each["uid"] == Value(std::int64_t{facts.uid}); };
        const auto its = std::find_if(may.items().begin(), may.items().end(), isIts);
        const std::string because = its == may.items().end() ? "" : (*its)["see"]["because"].toText();
        return {"hidden-by-policy",
                fmt::format("{} (process {}) asks for it, but {}", who, pid,
                            because.empty() ? "no rule of the registry's policy lets it see the service" : because),
                fmt::format("write a rule that does; {} says which there are for it", ask),
                {}};
    }
    return {"not-public",
            fmt::format("{} (process {}) asks for it, but another user provides it, it is not public, and there is no "
                        "policy",
                        who, pid),
            fmt::format("mark it as public (kesa::serviceregistry::PUBLIC in its metainfo), or write a policy for the "
                        "registry; {} says whether that lets it",
                        ask),
            {}};
}

std::string adviceFor(const Value& ask, const Value& record)
{
    const std::string_view because = ask["because"].stringView();
    if (ask["key"].isString()) {
        return explainKey(record, ask["key"].toText());
    }
    if (because == "scope") {
        return "its query asks for a scope that the record does not list; kesactl show PATH has the record";
    }
    if (because == "metadata") {
        return "its query asks for metadata that the record does not have; kesactl show PATH has the record";
    }
    return "all locators of the record are of another run directory than the one it uses";
}

} // namespace

Verdict explainProcess(const Value& explanation, const std::string& process, const std::string& path,
                       const apps::RegistryPlace& place, const Value& answer, comm::TimeNs deadline)
{
    const Value& about = explanation["for"];
    const auto& asks = about["asks"].items();
    if (about["known"] != true) {
        return explainUnknown(process, place, answer);
    }
    const Value& holder = explanation["holder"];
    const auto isHolders = [&holder](const Value& ask) { return ask["pid"] == holder["pid"]; };
    if (holder["provider"] == Value(process) && std::all_of(asks.begin(), asks.end(), isHolders)) {
        return {std::string(Verdict::WORKS),
                fmt::format("{} provides it itself, so it uses it without asking the registry", process),
                {},
                {}};
    }
    if (asks.empty()) {
        return {
            "not-asked",
            fmt::format(
                "{} asks this registry for nothing at the moment that {} would be {}: for other services, or for none",
                process, path, WHILE_THEY_WAIT),
            fmt::format("compare the paths and patterns that it tracks, letter by letter; and {}", IS_IT_KEPT),
            {}};
    }
    const auto told = std::find_if(asks.begin(), asks.end(), [](const Value& ask) { return ask["told"] == true; });
    const Value& ask = told == asks.end() ? asks.front() : *told;
    const std::int64_t pid = integerOf(ask["pid"]);
    if (ProcessFacts(static_cast<pid_t>(pid)).isStopped) {
        return {"stopped",
                fmt::format("{} (process {}) is stopped", process, pid),
                howToContinue(static_cast<pid_t>(pid)) + ", or end its debugger",
                {}};
    }
    if (told != asks.end()) {
        return explainTold(explanation, process, pid, path, deadline);
    }
    const std::string because = ask["because"].toText();
    if (because == "policy" || because == "private") {
        return explainUnseen(process, pid, because == "policy", path, about["may"]);
    }
    return {"hidden-by-" + because,
            fmt::format("{} (process {}) asks for it{}, but is not told of it because of its {}", process, pid,
                        ask["pattern"].isString() ? fmt::format(" with \"{}\"", ask["pattern"].toText()) : "", because),
            adviceFor(ask, explanation["holder"]["record"]),
            {}};
}

void addUnseen(Verdict& verdict, const std::string& process, const Unseen& unseen)
{
    if (unseen.text.empty() || verdict.cause == "stopped" || verdict.cause == "no-such-process") {
        return;
    }
    const std::string text = fmt::format("whether a handler holds {} cannot be seen: {}", process, unseen.text);
    if (verdict.isGood()) {
        verdict.text += "; " + text;
        verdict.advice = unseen.advice;
    } else {
        verdict.notes.push_back(text + (unseen.advice.empty() ? "" : "; " + unseen.advice));
    }
}

} // namespace kesactl
