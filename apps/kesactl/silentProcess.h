#ifndef KESACTL_SILENTPROCESS_H
#define KESACTL_SILENTPROCESS_H

#include "ProcessReport.h"

#include <comm/Clock.h>

#include <optional>
#include <string>
#include <vector>

namespace kesactl {

/// A process that provides nothing here, so that it has no name in the run directory and cannot be asked.
struct SilentProcess {
    /// What the kernel knows of it, what it says of itself without being asked, and its connections as others tell that
    /// it has made them to; nothing when nobody knows of such a one.
    std::optional<ProcessReport> report;
    std::vector<std::string> namesakes; ///< processes of the same name, by their numbers
    std::vector<std::string> notAsked;  ///< who could not tell of it: "media (stopped)"
};

/// `wanted` is its name or its process id. Asks all processes; blocks until the deadline at the latest.
SilentProcess findSilentProcess(const RunDirectoryFacts& directory, const std::string& wanted, comm::TimeNs deadline);

/// The same of one that says by itself that it is there, without asking anybody.
SilentProcess findNotedProcess(const std::string& wanted, comm::TimeNs deadline);

/// To the answer of a process, or what stands for it: what it says without being asked, "refused", "dropped",
/// "tooSlow", "ownHolds" and, where it has not answered, "holds".
void addNote(ProcessReport& report);

} // namespace kesactl

#endif
