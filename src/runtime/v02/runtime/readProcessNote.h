#ifndef KESA_RUNTIME_V02_READPROCESSNOTE_H
#define KESA_RUNTIME_V02_READPROCESSNOTE_H

#include <comm/Clock.h>

#include <sys/types.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// What a running process says of itself without being asked, see `ProcessNote`. All of it is another one's text, which
/// is shown as `obr::visible` does and cut to 1,024 bytes, the run directory to 4,096.
struct ReadProcessNote {
    struct Refusal {
        std::string path;
        std::string reason; ///< "409: service already registered: held by process player (pid 812)"
        comm::TimeNs when;  ///< on the wall clock
    };
    /// Of a registration that the process itself has ended before a registry knew of it.
    struct Dropped {
        std::string path;
        comm::TimeNs when; ///< on the wall clock
    };
    /// Of streams that a handler took too slowly, so that each was given up and asked for again.
    struct TooSlow {
        std::string path;  ///< of the service
        std::string loop;  ///< "media.worker": given to `kesa::on`; empty: the I/O loop
        comm::TimeNs when; ///< last, on the wall clock
        std::uint64_t times;
    };
    struct Hold {
        std::string loop;                       ///< "I/O loop", "executor", "updater"; of its own ones the name
        std::string holder;                     ///< "the handler of trackService for '/a'"
        comm::TimeNs time;                      ///< until now
        std::uint64_t waiting = 0;              ///< requests that wait for one of its own
        std::vector<std::string> services = {}; ///< that are served on such a one, at most 16; empty: unknown
    };

    pid_t pid = 0; ///< as it is known here
    std::string process;
    std::string runDirectory;
    std::string runDirectoryId;   ///< as `ProcessNote::directoryId` was at its start; empty: unknown
    std::vector<Refusal> refused; ///< at most the last 16, the last one comes last
    std::vector<Dropped> dropped; ///< these and the next as many, in that order, each path once
    std::vector<TooSlow> tooSlow;
    std::vector<Hold> holds;    ///< of the loops over which it hears of others; at most 8
    std::vector<Hold> ownHolds; ///< of loops given to `kesa::on`, which may be held; as many
    bool isWatched = false;     ///< it looks itself for what holds its loops: without `holds`, nothing does
};

/// Nothing when it says nothing, or this user may not look. Reads files of /proc, and does not wait for the process;
/// what a forked child has inherited is not its own, and not answered. Looks at the first 4,096 of its open files, at
/// no more when the deadline has passed, and reads at most 8 of them. Any thread.
std::optional<ReadProcessNote> readProcessNote(pid_t pid,
                                               comm::TimeNs deadline = std::numeric_limits<comm::TimeNs>::max());

} // namespace kesa::runtime::v02

#endif
