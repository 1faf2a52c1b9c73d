#ifndef KESACTL_MAYBEHIDDEN_H
#define KESACTL_MAYBEHIDDEN_H

#include <sys/types.h>

namespace kesactl {

/// Whether a registry may keep from this user what a process has registered: of other users' services he is told what
/// is public, and all of root's, or where there is a policy what that says. Its own user and root see all.
bool mayBeHidden(pid_t provider, bool isPolicyThere);

} // namespace kesactl

#endif
