#ifndef KESACTL_OTHERRUNDIRECTORIES_H
#define KESACTL_OTHERRUNDIRECTORIES_H

#include "RunDirectoryFacts.h"

#include <kesa/url.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

/// The one that counts for this process.
std::string chosenRunDirectory();

/// The directories besides the one at `chosen` in which processes may be meeting: those in which they would in another
/// environment, or as another user, as far as they are there.
std::vector<RunDirectoryFacts> otherRunDirectories(const std::string& chosen);

/// Whether a process has that name there.
bool isHeld(const RunDirectoryFacts& directory, std::string_view process);

/// The name of the process that a locator leads to.
std::string processOf(const kesa::url& locator);

/// What a process does to meet others in `directory`, since it has chosen another one: "set KESA_RUN_DIR=...".
std::string howToMeetIn(const RunDirectoryFacts& directory);

/// Those of them in which a living process has the name.
std::vector<RunDirectoryFacts> otherDirectoriesOf(const std::string& process);

/// A sentence with what to do about `process` not being in the run directory of this process: where else it is, or
/// nothing when it is nowhere.
std::string whereElse(const std::string& process);

} // namespace kesactl

#endif
