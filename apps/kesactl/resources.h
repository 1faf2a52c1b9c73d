#ifndef KESACTL_RESOURCES_H
#define KESACTL_RESOURCES_H

#include "ServiceConnection.h"
#include "options.h"

#include <comm/Clock.h>

#include <string>

namespace kesactl {

/// Asks the service at `path` which resources it has, and prints them: as a table, or each as a line of JSON that
/// begins with "resource". A `Failure` when it does not say.
void printResources(const ServiceConnection::Client& client, const std::string& path, const CommonOptions& options,
                    comm::TimeNs deadline);

} // namespace kesactl

#endif
