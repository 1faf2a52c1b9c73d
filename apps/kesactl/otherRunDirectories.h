#ifndef KESACTL_OTHERRUNDIRECTORIES_H
#define KESACTL_OTHERRUNDIRECTORIES_H

#include "RunDirectoryFacts.h"

#include <kesa/commadapter/chosenRunDirectory.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesactl {

using kesa::commadapter::chosenRunDirectory; // the one that counts for this process

/// The directories besides the one at `chosen` in which processes may be meeting: those in which they would in another
/// environment, or as another user, as far as they are there, and those in which processes that this user may look at
/// have names.
std::vector<RunDirectoryFacts> otherRunDirectories(const std::string& chosen);

/// Whether a process has that name there.
bool isHeld(const RunDirectoryFacts& directory, std::string_view process);

/// "set KESA_RUN_DIR=/run/kesa" for a shell; before that whose the directory is, if it is another user's than root's or
/// this one's.
std::string howToSet(const std::string& directory);

/// What a process does to meet others in `directory`, since it has chosen another one: "set KESA_RUN_DIR=...".
std::string howToMeetIn(const RunDirectoryFacts& directory);

/// Those of them in which a living process has the name.
std::vector<RunDirectoryFacts> otherDirectoriesOf(const std::string& process);

/// "media (812), radio (813)", of the first ones: of those that are lost, or of those that are there.
std::string holdersOf(const RunDirectoryFacts& directory, bool isLost);

/// "A and in B", of the first ones.
std::string namesOf(const std::vector<RunDirectoryFacts>& directories);

} // namespace kesactl

#endif
