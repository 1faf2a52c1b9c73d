#include "explainUnreachable.h"

#include "ProcessFacts.h"
#include "RunDirectoryFacts.h"
#include "otherRunDirectories.h"
#include "processNames.h"
#include "processNotes.h"
#include "replacedRealm.h"

#include <util/nearestName.h>

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace kesactl {
namespace {

using kesa::commadapter::Unreachable;

std::string refusedText(const NotedProcess& note, const NotedProcess::Refusal& refusal, std::string_view what)
{
    return fmt::format("{} runs, and {}", note.who(), refusalText(refusal, what));
}

/// Of that path, by what a process that can be reached, or runs without listening, says of it; nothing when it does
/// not.
std::optional<Unreached> explainNotedPath(const NotedProcess& note, const std::string& path)
{
    if (const auto* const refusal = note.refusalOf(path)) {
        return Unreached{"refused", refusedText(note, *refusal, "it" + asNamed(*refusal, path)), AFTER_REFUSAL};
    }
    if (const auto* const drop = note.dropOf(path)) {
        return Unreached{"not-provided", fmt::format("{} runs, and {}", note.who(), dropText(*drop)),
                         IS_REGISTRATION_KEPT};
    }
    return std::nullopt;
}

/// Of a process that runs here without listening.
Unreached explainUnnamed(const NotedProcess& note, const std::string& path)
{
    if (note.isMoved) {
        return {"socket-removed", fmt::format("{} runs, but {}", note.who(), IS_MOVED), AFTER_MOVE};
    }
    if (auto noted = explainNotedPath(note, path)) {
        return *noted;
    }
    if (!note.holds.empty()) {
        return {"held", fmt::format("{} runs, and provides nothing: {}", note.who(), holdText(note.holds.front())),
                AFTER_HOLD};
    }
    if (!note.refused.empty()) {
        const auto& last = note.refused.back();
        return {"not-provided", refusedText(note, last, last.path),
                "compare that path with the locator's, letter by letter"};
    }
    return {"not-provided", fmt::format("{} runs, and provides nothing so far", note.who()),
            fmt::format("its log may say what it waits for; {}", IS_REGISTRATION_KEPT)};
}

/// By what processes of that name say of themselves: one here, else where another one is.
std::optional<Unreached> explainByName(const std::string& process, const std::string& path, const std::string& reason)
{
    const std::vector<NotedProcess> notes = findNotes(plainName(process));
    const auto here = std::find_if(notes.begin(), notes.end(), [](const auto& note) { return note.isHere; });
    if (here != notes.end()) {
        return explainUnnamed(*here, path);
    }
    const auto other = std::find_if(notes.begin(), notes.end(), [](const auto& note) { return note.isElsewhere; });
    return other == notes.end()
               ? std::nullopt
               : std::optional<Unreached>({"nobody-listens", reason,
                                           fmt::format("{} runs in another run directory: {}, or start it here",
                                                       other->who(), howToSet(other->runDirectory))});
}

/// Nobody listens under that name: perhaps because somebody took the socket away.
Unreached explainMissing(const kesa::url& locator, const Unreachable& found)
{
    const RunDirectoryFacts facts(chosenRunDirectory());
    const std::string process = processOf(locator);
    const auto name = std::find_if(facts.names.begin(), facts.names.end(), [&process](const auto& each) {
        return each.name == process && each.holder != 0 && !each.hasSocket;
    });
    if (name != facts.names.end()) {
        return {"socket-removed",
                fmt::format("process {} has the name \"{}\", but its socket was removed from {}", name->holder,
                            plainName(process), facts.path),
                "restart it, and keep cleaners out of the run directory"};
    }
    const auto ending = std::find_if(facts.names.begin(), facts.names.end(), [&process](const auto& each) {
        return each.name == process && each.holder != 0 && each.hasSocket && each.connectError == ECONNREFUSED;
    });
    if (ending != facts.names.end()) {
        return {"ending",
                fmt::format("process {} has the name \"{}\", and takes no connections any more: it has crashed or is "
                            "about to end, as while its core is written",
                            ending->holder, plainName(process)),
                "wait for its end; its log (stderr, the journal) says why"};
    }
    const bool isReached = std::any_of(facts.names.begin(), facts.names.end(), [&process](const auto& each) {
        return each.name == process && each.hasSocket && each.connectError == 0;
    });
    if (isReached && ::access("/proc/self/fd", F_OK) != 0) { // through which its socket is opened
        return {
            "not-connected",
            fmt::format("\"{}\" listens in {}, but cannot be reached without /proc", plainName(process), facts.path),
            "mount /proc here, or ask from where it is mounted", true};
    }
    if (auto noted = explainByName(process, locator.path(), found.reason)) {
        return *noted;
    }
    std::vector<std::string> held;
    for (const auto& each : facts.names) {
        if (each.holder != 0 && !each.isLost && each.name != process) {
            held.push_back(plainName(each.name));
        }
    }
    const std::string_view meant = util::nearestName(plainName(process), {held.begin(), held.end()});
    return {"nobody-listens", found.reason,
            meant.empty() ? "start it, or set KESA_RUN_DIR to the directory it uses"
                          : fmt::format("is \"{}\" meant, which runs here? Else start it, or set KESA_RUN_DIR to the "
                                        "directory it uses",
                                        meant)};
}

/// How many those are, when it may open no more; 0 when it may, or that cannot be read.
std::size_t usedUpDescriptors(std::int64_t pid)
{
    std::error_code failed;
    std::size_t open = 0;
    for (std::filesystem::directory_iterator next(fmt::format("/proc/{}/fd", pid), failed), end; !failed && next != end;
         next.increment(failed)) {
        ++open;
    }
    constexpr std::string_view KEY = "Max open files";
    std::ifstream limits(fmt::format("/proc/{}/limits", pid));
    std::size_t most = 0;
    for (std::string line; std::getline(limits, line);) {
        if (line.compare(0, KEY.size(), KEY) == 0) {
            std::istringstream(line.substr(KEY.size())) >> most;
        }
    }
    constexpr std::size_t SPARE = 1; // it may just have closed one
    return open + SPARE >= most ? most : 0;
}

Unreached explainSilent(const Unreachable& found)
{
    const ProcessFacts process(static_cast<pid_t>(found.pid));
    if (process.isStopped) {
        return {"stopped", fmt::format("its process ({}) is stopped", found.pid),
                howToContinue(static_cast<pid_t>(found.pid)) + ", or end its debugger", true};
    }
    if (found.pid <= 0) {
        return {"silent", "whoever listens there does not answer: " + found.reason,
                "kesactl doctor shows who has its name", true};
    }
    if (const std::size_t most = usedUpDescriptors(found.pid); most != 0) {
        return {
            "silent",
            fmt::format("its process ({}) does not answer: it has used up its descriptors, all {}", found.pid, most),
            fmt::format("let it have more (ulimit -n, or LimitNOFILE= of its unit), or see in /proc/{}/fd which it "
                        "leaves open",
                        found.pid),
            true};
    }
    const auto note = noteOf(found.pid);
    if (const auto* const hold = note ? note->holdOf("I/O loop") : nullptr) {
        return {"held", fmt::format("its process ({}) does not answer: {}", found.pid, holdText(*hold)), AFTER_HOLD,
                true};
    }
    return {"silent", fmt::format("its process ({}) does not answer: {}", found.pid, found.reason),
            "it is busy, or a handler blocks its I/O loop, which its own log names ([loop]): look at its threads, or "
            "restart it",
            true};
}

Unreached explainNotProvided(const kesa::url& locator, const Unreachable& found)
{
    const auto note = noteOf(found.pid);
    if (auto noted = note ? explainNotedPath(*note, std::string(locator.path())) : std::nullopt) {
        noted->isSomebodyThere = true;
        return *noted;
    }
    return {"not-provided", fmt::format("its process ({}) answers, but {}", found.pid, found.reason),
            "correct the path in the locator, or wait until it provides the service", true};
}

} // namespace

Unreached explain(const kesa::url& locator, const Unreachable& found)
{
    using Cause = Unreachable::Cause;
    const std::string process = fmt::format("its process ({})", found.pid);
    switch (found.cause) {
    case Cause::eNONE:
        return {"slow", "it is there, but has not answered within the time limit", "give it more with --timeout", true};
    case Cause::eNOWHERE:
        return {"bad-locator", found.reason, "its provider has to name one that leads here"};
    case Cause::eMISSING:
        return explainMissing(locator, found);
    case Cause::eFORBIDDEN:
        return {"rights", found.reason, {}};
    case Cause::eNOT_CONNECTED:
        return {"not-connected", found.reason, "kesactl doctor shows the run directory and who is in it"};
    case Cause::eSILENT:
        return explainSilent(found);
    case Cause::eGARBAGE:
        return {"garbage", fmt::format("what {} says is not Kesa's protocol: {}", process, found.reason),
                "some other program has its name, or it was just ending", true};
    case Cause::eOTHER_VERSION:
        return {"other-version", fmt::format("{} is of another version: {}", process, found.reason),
                "install the same version for both", true};
    case Cause::eNOT_PROVIDED:
        return explainNotProvided(locator, found);
    }
    return {};
}

Unreached explainUnreachable(const kesa::url& locator, comm::TimeNs within)
{
    const comm::TimeNs deadline = comm::now() + within;
    Unreached why = explain(locator, kesa::commadapter::whyUnreachable(locator, within));
    if (why.cause != "bad-locator" || locator.authority().find('+') == std::string_view::npos) {
        return why;
    }
    const RunDirectoryFacts here(chosenRunDirectory());
    if (!isHeld(here, processOf(locator))) {
        return why;
    }
    ReplacedRealm replaced = findReplacedRealm(here, lookAtProcesses(here, deadline));
    return replaced.text.empty() ? why
                                 : Unreached{"hidden-by-realm", std::move(replaced.text), std::move(replaced.advice)};
}

comm::TimeNs timeToExplain(comm::TimeNs deadline)
{
    constexpr comm::TimeNs MOST = 500 * comm::MILLISECOND;
    return deadline - std::clamp<comm::TimeNs>((deadline - comm::now()) / 4, 0, MOST);
}

} // namespace kesactl
