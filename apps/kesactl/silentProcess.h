#ifndef KESACTL_SILENTPROCESS_H
#define KESACTL_SILENTPROCESS_H

#include "ProcessReport.h"

#include <comm/Clock.h>

#include <optional>
#include <string>

namespace kesactl {

/// A process that provides nothing here, so that it has no name in the run directory and cannot be asked: what the
/// kernel knows of it, and its connections as those tell that it has made them to. `wanted` is its name or its process
/// id; nothing when nobody knows of such a one. Asks all processes; blocks until the deadline at the latest.
std::optional<ProcessReport> findSilentProcess(const RunDirectoryFacts& directory, const std::string& wanted,
                                               comm::TimeNs deadline);

} // namespace kesactl

#endif
