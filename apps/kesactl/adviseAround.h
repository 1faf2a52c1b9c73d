#ifndef KESACTL_ADVISEAROUND_H
#define KESACTL_ADVISEAROUND_H

#include "System.h"

#include <comm/Clock.h>

#include <string>

namespace kesactl {

/// What was meant by a path that no service has, where services stand around it: one above it, of which its end may be
/// a resource; some below it, or that it matches as a glob. Empty when there are none, or the registry does not say.
std::string adviseAround(const System& system, const std::string& path, comm::TimeNs deadline);

} // namespace kesactl

#endif
