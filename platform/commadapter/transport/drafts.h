#ifndef KESA_COMMADAPTER_TRANSPORT_DRAFTS_H
#define KESA_COMMADAPTER_TRANSPORT_DRAFTS_H

#include "transport/Descriptor.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

namespace kesa::commadapter::transport {

// A draft is a file of a run directory that gets its name when it is ready: until then it is `.WHAT.PID.RANDOM.tmp`,
// with 16 hex digits that nobody can foresee, who else could put a file of his there first.

/// Calls `make`, which is to make a draft of a name, with one after the other until one is not there yet. Answers the
/// name; empty when `make` fails (true), with its `errno`. Of `what`, a process or "realm", many bytes are cut.
std::string makeDraft(std::string_view what, const std::function<bool(const std::string& name)>& make);

/// A file as one, to be written. None, with `errno`, when it cannot be made.
Descriptor makeDraftFile(int directory, std::string_view what, mode_t mode, std::string& name);

/// Removes drafts that killed processes left behind. `present`: a file just made there, by whose time the age of others
/// is told. Looks at 4096 files at most, whoever put them there.
void sweepDrafts(int directory, const struct stat& present);

} // namespace kesa::commadapter::transport

#endif
