#include "whyAbsent.h"

#include "OtherPartition.h"
#include "ProcessFacts.h"
#include "ProcessReport.h"
#include "mayBeHidden.h"
#include "missingRight.h"
#include "otherRunDirectories.h"
#include "output.h"
#include "processNames.h"
#include "processNotes.h"
#include "programOf.h"
#include "registryPolicy.h"

#include <rules/usersAndGroups.h>
#include <transport/Authority.h>
#include <util/shellWord.h>

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>

namespace kesactl {
namespace {

using util::config::Value;

/// A service that was there for less was hardly meant to go.
constexpr comm::TimeNs SHORT = comm::SECOND;

/// Whoever provides it may run where this registry does not see it.
void addElsewhere(Verdict& verdict, const std::string& registry)
{
    const RunDirectoryFacts here(chosenRunDirectory());
    if (const std::string lost = holdersOf(here, true); !lost.empty()) {
        verdict.advice = fmt::format("restart {}: files of theirs were removed from {}, so they do not find this "
                                     "registry; keep cleaners out of there",
                                     lost, here.path);
    }
    constexpr std::size_t MOST = 3;
    for (const RunDirectoryFacts& other : otherRunDirectories(here.path)) {
        const std::string holders = holdersOf(other, false);
        if (!holders.empty() && verdict.notes.size() < MOST) {
            verdict.notes.push_back(fmt::format("elsewhere, in {}: {}{}; to look there, {}", other.path, holders,
                                                isHeld(other, registry) ? ", with a registry of their own" : "",
                                                howToMeetIn(other)));
        }
    }
}

Verdict explainNever(const Value& explanation, const std::string& registry)
{
    const Value& started = explanation["registryStarted"];
    if (isYoung(timeOf(started))) {
        return {"registry-young",
                fmt::format("the registry started only at {}, and providers take up to a second to find it again",
                            timeText(started)),
                "ask again",
                {}};
    }
    Verdict verdict{"never-registered",
                    fmt::format("nobody has registered it since the registry started at {}", timeText(started)),
                    "start its provider; kesactl list shows what is there",
                    {}};
    if (const Value& nearest = explanation["nearest"]; nearest.isString()) {
        verdict.advice = fmt::format("did you mean \"{}\"?", nearest.toText());
    }
    addElsewhere(verdict, registry);
    return verdict;
}

/// Also where /proc shows it to nobody else, or is not there.
bool isAlive(const ProcessFacts& process, std::int64_t pid)
{
    const bool isHidden = ::access("/proc/self/stat", F_OK) != 0 || ::access("/proc/1", F_OK) != 0;
    return process.isThere || (isHidden && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM));
}

/// The one that an event is about: its number may be another one's by now.
bool isAlive(const Value& event, const ProcessFacts& process)
{
    constexpr comm::TimeNs INEXACT = comm::SECOND; // the clock may have been set by a little
    const std::int64_t pid = integerOf(event["pid"]);
    const Value& began = event["since"];
    const comm::TimeNs wasThere = timeOf(began.isDefined() ? began : event["when"]);
    return pid > 0 && isAlive(process, pid) && process.started <= wasThere + INEXACT;
}

bool isAlive(const Value& event)
{
    return isAlive(event, ProcessFacts(static_cast<pid_t>(integerOf(event["pid"]))));
}

Verdict explainRefused(const Value& event)
{
    const std::string name = event["provider"].toText();
    return {"refused",
            fmt::format("{} was refused it at {}{}; now nobody has it", whoText(event), timeText(event["when"]),
                        event["reason"].isDefined() ? ": " + event["reason"].toText() : ""),
            isAlive(event) ? fmt::format("restart {}: a refused registration is not repeated", name)
                           : fmt::format("start {} again; its process has ended", name),
            {}};
}

/// Of what the policy has ended, and whether it still would.
void addForbidden(Verdict& verdict, const Value& event, const std::string& path, PolicyNow& policy)
{
    const std::int64_t uid = integerOf(event["uid"]);
    const std::string name = event["provider"].toText();
    PolicyNow::Since since = policy.since({name, uid, path, timeOf(event["when"])});
    verdict.text += since.text;
    verdict.advice =
        since.advice.empty()
            ? fmt::format("write a rule that allows it ({} says which there are) and have the policy read again, then "
                          "restart {}, if it does not register anew by itself: what was ended is not repeated",
                          mayCommand(kesa::access::userName(static_cast<uid_t>(uid)), uid, "register", path), name)
            : std::move(since.advice);
}

Verdict explainGone(const Value& event, const std::string& path, PolicyNow& policy)
{
    const bool isWithdrawn = event["what"] == "withdrawn";
    const bool isForbidden = event["what"] == "forbidden";
    const std::int64_t pid = integerOf(event["pid"]);
    const ProcessFacts process(static_cast<pid_t>(pid));
    const bool isThere = isAlive(event, process);
    const bool isStopped = isThere && process.isStopped;
    const bool isEnded = isThere && !isStopped && isWithoutRuntime(static_cast<pid_t>(pid));
    const std::string name = event["provider"].toText();
    Verdict verdict{"gone",
                    fmt::format("{} provided it from {} to {}; then {}; its process {}", whoText(event),
                                timeText(event["since"]), timeText(event["when"]),
                                isWithdrawn   ? "it withdrew it"
                                : isForbidden ? event["reason"].toText()
                                              : "its connection ended: " + event["reason"].toText(),
                                isStopped ? "is stopped"
                                : isEnded ? "is still there, but runs no Kesa runtime any more"
                                : isThere ? "is still there"
                                          : "has ended"),
                    {},
                    {}};
    if (isStopped) {
        verdict.advice = howToContinue(static_cast<pid_t>(pid)) + ", or end its debugger";
    } else if (!isThere) {
        const RunDirectoryFacts here(chosenRunDirectory());
        verdict.advice = fmt::format("{}start {} again; its log (stderr, the journal) says why it ended",
                                     here.beforeStart(kesa::commadapter::transport::encodeProcessName(name)), name);
    } else if (isEnded) {
        verdict.advice = fmt::format("restart {}: its runtime was ended while the process goes on (Runtime::end, "
                                     "KesaRuntime::shutdown, or the end of a kesa::Runtime)",
                                     name);
    } else if (isWithdrawn) {
        const comm::TimeNs lasted = timeOf(event["when"]) - timeOf(event["since"]);
        verdict.advice = fmt::format("that was {}'s own decision{}: {}; else its log may say why", name,
                                     lasted < SHORT ? fmt::format(", after {} ms", lasted / comm::MILLISECOND) : "",
                                     IS_REGISTRATION_KEPT);
    } else if (isForbidden) {
        addForbidden(verdict, event, path, policy);
    } else {
        verdict.advice = fmt::format("it registers again when it is connected again, unless it is crashing (kesactl "
                                     "status {0} says so); {0}'s KESA_TRACE=\"KESA_COMM=1\" says what keeps it",
                                     name);
    }
    return verdict;
}

/// A provider that a handler holds before it could register is one of them.
void noteNameless(Verdict& verdict, const std::vector<std::string>& nameless)
{
    if (!nameless.empty()) {
        verdict.notes.push_back(
            fmt::format("what provides nothing so far cannot be asked: {}; should one be its provider, a kesa::Runtime "
                        "says by itself whether a handler holds it, to its own user",
                        firstOf(nameless)));
    }
}

/// The loop that registers.
bool isExecutor(const HeldProcess& process)
{
    return process.loop == "executor";
}

/// Of a process that would provide it and cannot. `so`: what comes of it.
std::optional<Verdict> explainUnable(const ProcessesHere& here, std::string_view so)
{
    const std::string perhaps = fmt::format("{}, perhaps since one process cannot", so);
    if (!here.replaced.text.empty()) {
        return Verdict{
            "hidden-by-realm", fmt::format("{}, perhaps since {}", so, here.replaced.text), here.replaced.advice, {}};
    }
    if (here.refused) {
        return Verdict{"refused", fmt::format("{}: {}", so, here.refused->text), here.refused->advice, {}};
    }
    if (!here.dropped.empty()) {
        return Verdict{"gone", fmt::format("{}: {}", so, here.dropped), IS_REGISTRATION_KEPT, {}};
    }
    if (const auto found = std::find_if(here.held.begin(), here.held.end(), isExecutor); found != here.held.end()) {
        return explainHeld(*found, perhaps);
    }
    if (!here.otherVersion.text.empty()) {
        return Verdict{
            "other-version", fmt::format("{}: {}", perhaps, here.otherVersion.text), here.otherVersion.advice, {}};
    }
    return std::nullopt;
}

/// Where a process asks, should it not be the registry: ", and is connected to other-registryd"; may be empty.
std::string whereElse(const Value& answer)
{
    std::vector<std::string> peers;
    for (const Value& connection : answer["connections"].items()) {
        if (connection["openedBy"] == "self" && connection["connected"] == true) {
            peers.push_back(connection["process"].toText());
        }
    }
    return peers.empty() ? "; it is connected to nobody" : "; it is connected to " + firstOf(peers);
}

/// Of what another user provides, and this one may not see.
std::string adviseOnHidden(const std::string& path, const std::string& owner, bool isPolicyThere)
{
    const std::string self = kesa::access::userName(::geteuid());
    return isPolicyThere
               ? fmt::format("have a rule written into the registry's policy that lets {} see it: {} says "
                             "which there are",
                             self, mayCommand(self, ::geteuid(), "see", path))
               : fmt::format("without a policy of the registry, what another user provides is seen when it is "
                             "public: have {} mark it as that (kesa::serviceregistry::PUBLIC), or a policy "
                             "written",
                             owner);
}

} // namespace

Verdict explainAbsence(const Value& explanation, const std::string& registry, PolicyNow& policy)
{
    const auto& history = explanation["history"].items();
    if (history.empty()) {
        return explainNever(explanation, registry);
    }
    const Value& last = history.back();
    Verdict verdict =
        last["what"] == "refused" ? explainRefused(last) : explainGone(last, explanation["path"].toText(), policy);
    verdict.notes = notesOf(explanation, 1);
    return verdict;
}

Verdict explainHidden(const Value& explanation, const std::optional<ProviderHere>& provider, const Value& policy)
{
    const std::string self = kesa::access::userName(::geteuid());
    const bool isKnown = provider && mayBeHidden(provider->pid, true);
    const std::string owner = isKnown ? ProcessFacts(provider->pid).user : "its owner";
    const std::string holder = isKnown ? fmt::format("{} ({}) of {}", provider->name, provider->pid, owner)
                                       : std::string("a process of another user");
    const auto& history = explanation["history"].items();
    if (!history.empty() && history.back()["what"] == "refused") {
        const Value& last = history.back();
        return {"refused",
                fmt::format("{} was refused it at {}: it is held by {}, whose service {} may not see", whoText(last),
                            timeText(last["when"]), holder, self),
                fmt::format("take another path, or have {} or root end that one (root's kesactl why says who it is), "
                            "then restart {}: a refused registration is not repeated",
                            owner, last["provider"].toText()),
                notesOf(explanation, 1)};
    }
    return {"hidden", fmt::format("{} provides it, and the registry does not show it to {}", holder, self),
            fmt::format("{}; root's kesactl why says more",
                        adviseOnHidden(explanation["path"].toText(), owner, policy["hasRules"] == true)),
            notesOf(explanation, 0)};
}

Verdict explainHereOnly(const ProviderHere& provider, const std::string& path, const apps::RegistryPlace& place,
                        const Value& policy, const Value& see)
{
    const kesa::url& registry = place.locators.front();
    const std::string so = fmt::format("{} ({}) provides it here, and the registry at {} does not know it",
                                       provider.name, provider.pid, registry.toString());
    if (const std::string missing = missingRight(provider.pid, registry); !missing.empty()) {
        return {"rights",
                fmt::format("{}: {}", so, missing),
                "run it with that group, or set \"socket_group\" and \"socket_mode\" of the registry's process",
                {}};
    }
    if (const OtherPartition partition = findOtherPartition(provider.answer, place); !partition.name.empty()) {
        return {"provided-here-only", fmt::format("{}: {}", so, partition.text()), partition.advice(), {}};
    }
    const std::string apart = whyApart(provider.answer, processOf(registry));
    const bool isPolicyThere = policy["hasRules"] == true;
    const bool isSeen = isPolicyThere && see["allowed"] == true; // so the registry does not know it
    if (apart.empty() && !isSeen && mayBeHidden(provider.pid, isPolicyThere)) {
        const ProcessFacts process(provider.pid);
        return {"perhaps-hidden",
                fmt::format("{} ({}) of {} provides it, and the registry does not show it to {}, or does not know it{}",
                            provider.name, provider.pid, process.user, kesa::access::userName(::geteuid()),
                            isPolicyThere && see["because"].isString() ? ": " + see["because"].toText() : ""),
                fmt::format("{}; root's kesactl why, or {}'s, says whether it is known",
                            adviseOnHidden(path, process.user, isPolicyThere), process.user),
                {}};
    }
    return {"provided-here-only",
            apart.empty() ? so + whereElse(provider.answer)
                          : fmt::format("{}: it is not connected to it: {}", so, apart),
            provider.isYoung ? "ask again: that process has just started"
            : apart.empty()
                ? fmt::format("{0} asks another registry or none, or was refused: see its log, and its document with "
                              "kesactl check-config --process {1} in its environment",
                              provider.name, util::shellWord(provider.name))
                : fmt::format("it registers once it is connected; {}'s KESA_TRACE=\"KESA_COMM=1\" says more",
                              provider.name),
            {}};
}

bool hasProviderEnded(const Value& explanation)
{
    const auto& history = explanation["history"].items();
    return explanation["registered"] != true && !history.empty() && !isAlive(history.back());
}

Verdict explainHeldOr(Verdict verdict, const ProcessesHere& here)
{
    if (auto unable = explainUnable(here, "nobody has registered it")) {
        if (!here.refused && here.dropped.empty()) { // else it is certain
            unable->notes.push_back("otherwise, " + verdict.advice);
        }
        return *unable;
    }
    if (!here.refusedName.empty()) {
        verdict.notes.push_back(here.refusedName +
                                ", so it provides nothing here; should it be the provider, end one of "
                                "the two, or give it another name");
    }
    noteNameless(verdict, here.nameless);
    return verdict;
}

Verdict explainAfterEnd(Verdict verdict, const Value& explanation, ProcessesHere here, const ProcessesHere& again,
                        const kesa::url& registry)
{
    here.held = again.held; // another one is held for reasons of its own
    here.otherVersion = again.otherVersion;
    if (here.droppedAt < timeOf(explanation["history"].items().back()["when"])) {
        here.dropped.clear(); // another has had it since
    }
    if (auto unable = explainUnable(here, "nobody has it now")) {
        unable->notes = notesOf(explanation, 0);
        return *unable;
    }
    if (!again.running) {
        if (!again.elsewhere.empty()) {
            verdict.notes.insert(verdict.notes.begin(), again.elsewhere);
        }
        return verdict;
    }
    const pid_t pid = again.running->pid;
    const ProcessFacts process(pid);
    const std::string apart = whyApart(again.asked, processOf(registry));
    verdict.text = fmt::format("nobody has it now: {} runs, and does not provide it{}", again.running->who,
                               process.isStopped       ? "; it is stopped"
                               : !apart.empty()        ? "; it is not connected to the registry: " + apart
                               : again.unseen.isSilent ? "; " + again.unseen.text
                                                       : "");
    verdict.advice = process.isStopped          ? howToContinue(static_cast<pid_t>(pid)) + ", or end its debugger"
                     : isYoung(process.started) ? "ask again: that process has just started"
                     : again.unseen.isSilent    ? again.unseen.advice
                     : !apart.empty() ? "it registers once it is connected; its KESA_TRACE=\"KESA_COMM=1\" says more"
                                      : fmt::format("its log may say what it waits for; {}", IS_REGISTRATION_KEPT);
    verdict.notes = notesOf(explanation, 0);
    return verdict;
}

Verdict explainHeld(const HeldProcess& process, const std::string& so)
{
    return {"held",
            fmt::format("{}: {} has held the {} of {} (process {}) for {} s, so that it hears of nothing{}", so,
                        process.holder, process.loop, process.name, process.pid, process.time / comm::SECOND,
                        isExecutor(process) ? " and registers nothing" : ""),
            AFTER_HOLD,
            {}};
}

std::vector<std::string> notesOf(const Value& explanation, std::size_t withoutLast)
{
    constexpr std::size_t MOST = 20; // the last ones; no registry keeps as many
    std::vector<std::string> notes;
    const auto& history = explanation["history"].items();
    for (std::size_t i = history.size() - std::min(MOST, history.size()); i + withoutLast < history.size(); ++i) {
        notes.push_back("before, " + eventText(history[i]));
    }
    return notes;
}

} // namespace kesactl
