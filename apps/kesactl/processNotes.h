#ifndef KESACTL_PROCESSNOTES_H
#define KESACTL_PROCESSNOTES_H

#include "policyNow.h"

#include <comm/Clock.h>
#include <runtime/v02/runtime/readProcessNote.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

/// What a process says of itself without being asked, also one that has no name by which it could be.
struct NotedProcess : kesa::runtime::v02::ReadProcessNote {
    bool isHere = false; ///< it meets others in the run directory that counts for this process
    /// In another one, which this process can name: not that of a container, nor none at all.
    bool isElsewhere = false;
    /// Its run directory has the path of the one that counts, and is another one: it was moved away, or replaced.
    bool isMoved = false;
    std::int64_t uid = -1;
    std::string user; ///< whose it is, when not this user's; else empty

    /// "media", or "media of the user nobody" when it is not this user's.
    std::string name() const;
    /// The same with " (process 812)".
    std::string who() const;
    /// Of that path, which may have been named without its leading '/'; null when there is none, as with the next ones.
    const Refusal* refusalOf(std::string_view path) const;
    const Dropped* dropOf(std::string_view path) const;
    const TooSlow* slownessOf(std::string_view path) const;
    /// Of that loop; null when nothing holds it.
    const Hold* holdOf(std::string_view loop) const;
    /// Of its own loops the one for which most wait; null when nothing holds one.
    const Hold* worstOwnHold() const;
    /// Of the loop on which that path is served; null when nothing holds it, or when that is not known.
    const Hold* ownHoldOf(std::string_view path) const;
};

/// All that this machine shows, those of this user first, each kind by their numbers.
std::vector<pid_t> runningProcesses();

/// Whether it runs as this user.
bool isOwnProcess(pid_t pid);

/// Of one process; nothing when it says nothing, or this user may not look.
std::optional<NotedProcess> noteOf(std::int64_t pid);

/// All that this user may look at, but for other `kesactl`; if `process` is not empty, those of that name alone. Those
/// of this user come first, each kind by their numbers, and one of another user is left out where a process of this
/// user has its name. Looks at the open files of every process until the deadline, but for a second at least.
std::vector<NotedProcess> findNotes(const std::string& process = {},
                                    comm::TimeNs deadline = comm::now() + comm::SECOND);

/// "the handler of trackService for '/a' has held its executor for 4 s"
std::string holdText(const NotedProcess::Hold& hold);
/// "the request 'retrieve /cover' has held its loop 'media.disk' for 4 s, and 2 requests wait for it"
std::string ownHoldText(const NotedProcess::Hold& hold);
/// "was refused it at 12:00:01.000: 403: ...". `what`: "it", or the path.
std::string refusalText(const NotedProcess::Refusal& refusal, std::string_view what);
/// Whether the registry's policy has refused it.
bool isForbidden(const NotedProcess::Refusal& refusal);
PolicyNow::Forbidden forbiddenOf(const NotedProcess& note, const NotedProcess::Refusal& refusal);
/// ""; or, of a refusal that was not of `path` to the letter, " as \"media/list\""
std::string asNamed(const NotedProcess::Refusal& refusal, std::string_view path);
/// "ended its registration of /media/list itself 4 s ago, before a registry had answered it"
std::string dropText(const NotedProcess::Dropped& dropped);
/// "a handler on its loop 'media.worker' was too slow for what /tuner sends: ..."
std::string slownessText(const NotedProcess::TooSlow& slow);
/// What to do with it.
const char* afterSlowness(const NotedProcess::TooSlow& slow);
/// Since that time of the wall clock.
comm::TimeNs sinceWall(comm::TimeNs when);

/// Until then a follower that was too slow is so.
inline constexpr comm::TimeNs RECENTLY = 10 * comm::SECOND;
/// Less may be the turn of one request after the other.
inline constexpr comm::TimeNs LONG_OWN_HOLD = 10 * comm::SECOND;

/// Of one whose run directory was moved, and what to do with it.
inline constexpr const char* IS_MOVED =
    "its run directory was moved away or replaced under it, so that nobody finds it";
inline constexpr const char* AFTER_MOVE = "restart it, and leave the run directory where it is";

/// What to do with a process that a handler holds, that was refused, of which a handler holds a loop of its own, and
/// that has ended what it provided.
inline constexpr const char* AFTER_HOLD =
    "restart it; what takes long or waits belongs on a thread of its own, as kesa::on does";
inline constexpr const char* AFTER_REFUSAL =
    "see to that, then restart it, if it does not register anew by itself: a refused registration is not repeated";
inline constexpr const char* AFTER_OWN_HOLD =
    "requests on one loop are served one after the other: serve what takes long on a loop of its own (kesa::on), apart "
    "from what shall answer soon; restart it if that handler does not end";
inline constexpr const char* IS_REGISTRATION_KEPT =
    "is what kesa::provide or registerService returns kept? It withdraws the service when it is destroyed";

} // namespace kesactl

#endif
