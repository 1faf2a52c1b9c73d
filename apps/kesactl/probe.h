#ifndef KESACTL_PROBE_H
#define KESACTL_PROBE_H

#include "System.h"

#include <kesa/Request.h>

namespace kesactl {

/// A request that does nothing at the service, whatever it answers: of a command that no service has. A registry, which
/// would complain of that in its log, is asked what is known of its own path.
kesa::Request probeOf(const ServiceDef& service);

} // namespace kesactl

#endif
