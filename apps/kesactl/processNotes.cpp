#include "processNotes.h"

#include "RunDirectoryFacts.h"
#include "Verdict.h"
#include "nameHolders.h"
#include "otherRunDirectories.h"
#include "seenByProvider.h"

#include <comm/wallClock.h>
#include <obr/visible.h>
#include <rules/usersAndGroups.h>
#include <runtime/v02/runtime/ProcessNote.h>
#include <transport/Authority.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>

namespace kesactl {
namespace {

namespace fs = std::filesystem;

/// The directory itself decides: a container has others of the same names.
bool isChosen(const NotedProcess& note, const std::string& chosen)
{
    struct stat own {};
    struct stat other {};
    const std::string seen = fmt::format("/proc/{}/root{}", note.pid, note.runDirectory);
    return ::stat(chosen.c_str(), &own) == 0 && ::stat(seen.c_str(), &other) == 0
               ? own.st_dev == other.st_dev && own.st_ino == other.st_ino
               : note.runDirectory == obr::visible(chosen);
}

std::optional<NotedProcess> readNote(pid_t pid, const std::string& chosen, comm::TimeNs deadline)
{
    auto read = kesa::runtime::v02::readProcessNote(pid, deadline);
    struct stat status {};
    if (!read || ::stat(fmt::format("/proc/{}", pid).c_str(), &status) != 0) {
        return std::nullopt;
    }
    NotedProcess note;
    static_cast<kesa::runtime::v02::ReadProcessNote&>(note) = std::move(*read);
    note.isHere = isChosen(note, chosen);
    note.isElsewhere = !note.isHere && !note.runDirectory.empty() && note.runDirectory != obr::visible(chosen);
    note.isMoved = !note.runDirectoryId.empty() && note.runDirectory == obr::visible(chosen) &&
                   note.runDirectoryId != kesa::runtime::v02::ProcessNote::directoryId(chosen) &&
                   !holdsNameIn(pid, chosen); // it has put back what was removed
    note.uid = status.st_uid;
    note.user = status.st_uid == ::geteuid() ? "" : kesa::access::userName(status.st_uid);
    return note;
}

/// Whether a process of this user has the name in the run directory.
bool isHeldByOwn(const RunDirectoryFacts& facts, const std::string& process)
{
    return std::any_of(
        facts.names.begin(), facts.names.end(),
        [encoded = kesa::commadapter::transport::encodeProcessName(process)](const RunDirectoryFacts::Name& name) {
            return name.name == encoded && name.holder != 0 && !name.isLost && isOwnProcess(name.holder);
        });
}

/// Anybody may say to have a name.
void dropPretenders(std::vector<NotedProcess>& notes, const std::string& chosen)
{
    const auto firstOther =
        std::find_if(notes.begin(), notes.end(), [](const NotedProcess& note) { return !note.user.empty(); });
    if (firstOther == notes.end()) {
        return;
    }
    const RunDirectoryFacts facts(chosen);
    const std::vector<NotedProcess> own(notes.begin(), firstOther);
    const auto isPretender = [&own, &facts](const NotedProcess& note) {
        return isHeldByOwn(facts, note.process) ||
               std::any_of(own.begin(), own.end(), [&note](const NotedProcess& each) {
                   return each.process == note.process && (each.isHere || !note.isHere);
               });
    };
    notes.erase(std::remove_if(firstOther, notes.end(), isPretender), notes.end());
}

/// What is of `path`, before what may be meant as it.
template <class T>
const T* findOf(const std::vector<T>& all, std::string_view path)
{
    const std::string_view meant = path.empty() || path.front() != '/' ? path : path.substr(1);
    for (const std::string_view wanted : {path, meant}) {
        const auto found =
            std::find_if(all.begin(), all.end(), [wanted](const T& each) { return each.path == wanted; });
        if (found != all.end()) {
            return &*found;
        }
    }
    return nullptr;
}

} // namespace

std::string NotedProcess::name() const
{
    return user.empty() ? process : fmt::format("{} of the user {}", process, user);
}

std::string NotedProcess::who() const
{
    return fmt::format("{} (process {})", name(), pid);
}

const NotedProcess::Refusal* NotedProcess::refusalOf(std::string_view path) const
{
    return findOf(refused, path);
}

const NotedProcess::Dropped* NotedProcess::dropOf(std::string_view path) const
{
    return findOf(dropped, path);
}

const NotedProcess::TooSlow* NotedProcess::slownessOf(std::string_view path) const
{
    return findOf(tooSlow, path);
}

const NotedProcess::Hold* NotedProcess::holdOf(std::string_view loop) const
{
    const auto found = std::find_if(holds.begin(), holds.end(), [loop](const Hold& each) { return each.loop == loop; });
    return found == holds.end() ? nullptr : &*found;
}

const NotedProcess::Hold* NotedProcess::worstOwnHold() const
{
    const auto worst = std::max_element(ownHolds.begin(), ownHolds.end(),
                                        [](const Hold& a, const Hold& b) { return a.waiting < b.waiting; });
    return worst == ownHolds.end() ? nullptr : &*worst;
}

const NotedProcess::Hold* NotedProcess::ownHoldOf(std::string_view path) const
{
    const auto isOfPath = [path](const Hold& hold) {
        return std::find(hold.services.begin(), hold.services.end(), path) != hold.services.end();
    };
    const auto found = std::find_if(ownHolds.begin(), ownHolds.end(), isOfPath);
    return found == ownHolds.end() ? nullptr : &*found;
}

std::vector<pid_t> runningProcesses()
{
    std::vector<pid_t> own;
    std::vector<pid_t> others;
    std::error_code failed;
    for (fs::directory_iterator next("/proc", failed), end; !failed && next != end; next.increment(failed)) {
        const std::string name = next->path().filename().string();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr == name.data() + name.size()) {
            (isOwnProcess(pid) ? own : others).push_back(pid);
        }
    }
    std::sort(own.begin(), own.end());
    std::sort(others.begin(), others.end());
    own.insert(own.end(), others.begin(), others.end());
    return own;
}

bool isOwnProcess(pid_t pid)
{
    struct stat status {};
    return ::stat(fmt::format("/proc/{}", pid).c_str(), &status) == 0 && status.st_uid == ::geteuid();
}

std::optional<NotedProcess> noteOf(std::int64_t pid)
{
    return pid > 0 ? readNote(static_cast<pid_t>(pid), chosenRunDirectory(), comm::now() + comm::SECOND) : std::nullopt;
}

std::vector<NotedProcess> findNotes(const std::string& process, comm::TimeNs deadline)
{
    constexpr comm::TimeNs LEAST = comm::SECOND; // the deadline may have passed while others were asked
    const comm::TimeNs until = std::max(deadline, comm::now() + LEAST);
    std::vector<NotedProcess> notes;
    const std::string chosen = chosenRunDirectory();
    for (const pid_t pid : runningProcesses()) {
        if (comm::now() >= until) {
            break;
        }
        auto note = readNote(pid, chosen, until);
        const bool isWanted =
            note && (process.empty() ? note->process.rfind("kesactl-", 0) != 0 : note->process == process);
        if (isWanted) {
            notes.push_back(std::move(*note));
        }
    }
    dropPretenders(notes, chosen);
    return notes;
}

std::string holdText(const NotedProcess::Hold& hold)
{
    return fmt::format("{} has held its {} for {} s", hold.holder, hold.loop, hold.time / comm::SECOND);
}

std::string ownHoldText(const NotedProcess::Hold& hold)
{
    const std::string waiting = hold.waiting == 0   ? ""
                                : hold.waiting == 1 ? ", and a request waits for it"
                                                    : fmt::format(", and {} requests wait for it", hold.waiting);
    return fmt::format("{} has held its loop '{}' for {} s{}", hold.holder, hold.loop, hold.time / comm::SECOND,
                       waiting);
}

std::string refusalText(const NotedProcess::Refusal& refusal, std::string_view what)
{
    return fmt::format("was refused {} at {}: {}", what,
                       timeText(util::config::Value(std::int64_t{refusal.when / comm::MILLISECOND})), refusal.reason);
}

bool isForbidden(const NotedProcess::Refusal& refusal)
{
    return refusal.reason.rfind("403: ", 0) == 0;
}

PolicyNow::Forbidden forbiddenOf(const NotedProcess& note, const NotedProcess::Refusal& refusal)
{
    return {note.process, note.uid, refusal.path, refusal.when, refusal.reason};
}

std::string asNamed(const NotedProcess::Refusal& refusal, std::string_view path)
{
    return refusal.path == path ? "" : fmt::format(" as \"{}\"", refusal.path);
}

std::string dropText(const NotedProcess::Dropped& dropped)
{
    return fmt::format("ended its registration of {} itself {} s ago, before a registry had answered it", dropped.path,
                       sinceWall(dropped.when) / comm::SECOND);
}

std::string slownessText(const NotedProcess::TooSlow& slow)
{
    return fmt::format(
        "a handler on its {} was too slow for what {} sends: a stream was given up and asked for again {} "
        "so far, last {} s ago",
        slow.loop.empty() ? "I/O loop" : fmt::format("loop '{}'", slow.loop), slow.path,
        slow.times == 1 ? "once" : fmt::format("{} times", slow.times), sinceWall(slow.when) / comm::SECOND);
}

const char* afterSlowness(const NotedProcess::TooSlow& slow)
{
    return slow.loop.empty()
               ? AFTER_SLOWNESS
               : "that handler takes too long: let it take less time for a value, or the service send less";
}

comm::TimeNs sinceWall(comm::TimeNs when)
{
    return std::max<comm::TimeNs>(comm::wallClock() - when, 0);
}

} // namespace kesactl
