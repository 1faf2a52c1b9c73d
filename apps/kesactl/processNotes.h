#ifndef KESACTL_PROCESSNOTES_H
#define KESACTL_PROCESSNOTES_H

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
    std::string user; ///< whose it is, when not this user's; else empty

    /// "media", or "media of the user nobody" when it is not this user's.
    std::string name() const;
    /// The same with " (process 812)".
    std::string who() const;
    /// Of that path; null when there is none.
    const Refusal* refusalOf(std::string_view path) const;
    /// Of that loop; null when nothing holds it.
    const Hold* holdOf(std::string_view loop) const;
};

/// Whether it runs as this user.
bool isOwnProcess(pid_t pid);

/// Of one process; nothing when it says nothing, or this user may not look.
std::optional<NotedProcess> noteOf(std::int64_t pid);

/// All that this user may look at, but for other `kesactl`; if `process` is not empty, those of that name alone. Those
/// of this user come first, each kind by their numbers, and one of another user is left out where a process of this
/// user has its name. Looks at the open files of every process until the deadline, but for 200 ms at least.
std::vector<NotedProcess> findNotes(const std::string& process = {},
                                    comm::TimeNs deadline = comm::now() + comm::SECOND);

/// "the handler of trackService for '/a' has held its executor for 4 s"
std::string holdText(const NotedProcess::Hold& hold);

/// What to do with a process that a handler holds, and with one that was refused.
inline constexpr const char* AFTER_HOLD =
    "restart it; what takes long or waits belongs on a thread of its own, as kesa::on does";
inline constexpr const char* AFTER_REFUSAL =
    "see to that, then restart it, if it does not register anew by itself: a refused registration is not repeated";

} // namespace kesactl

#endif
