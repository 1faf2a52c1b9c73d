#ifndef KESA_RUNTIME_V02_READPROCESSNOTE_H
#define KESA_RUNTIME_V02_READPROCESSNOTE_H

#include <comm/Clock.h>

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// What a running process says of itself without being asked, see `ProcessNote`. All of it is another one's text.
struct ReadProcessNote {
    struct Refusal {
        std::string path;
        std::string reason; ///< "409: service already registered: held by process player (pid 812)"
        comm::TimeNs when;  ///< on the wall clock
    };
    struct Hold {
        std::string loop;   ///< "I/O loop", "executor", "updater"
        std::string holder; ///< "the handler of trackService for '/a'"
        comm::TimeNs time;  ///< until now
    };

    pid_t pid = 0; ///< as it is known here
    std::string process;
    std::string runDirectory;
    std::vector<Refusal> refused; ///< the last one comes last
    std::vector<Hold> holds;
    bool isWatched = false; ///< it looks itself for what holds its loops: without `holds`, nothing does
};

/// Nothing when it says nothing, or this user may not look. Reads files of /proc, and does not wait for the process;
/// what a forked child has inherited is not its own, and not answered. Any thread.
std::optional<ReadProcessNote> readProcessNote(pid_t pid);

} // namespace kesa::runtime::v02

#endif
