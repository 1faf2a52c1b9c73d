#ifndef KESACTL_REVIEWSETTINGS_H
#define KESACTL_REVIEWSETTINGS_H

#include <backend/connection/CommSettings.h>
#include <runtime/v02/config/ConfigReport.h>
#include <runtime/v02/config/KesaConfig.h>

#include <string>

namespace kesactl {

/// Adds to `report` what only the whole shows: what the backend says of its part, and, as fatal, what ends a process at
/// its start. `partition` is that of the process, empty when none is named. Answers what counts of "comm".
kesa::commadapter::CommSettings reviewSettings(const kesa::runtime::v02::KesaConfig& config,
                                               const std::string& partition, kesa::runtime::v02::ConfigReport& report);

} // namespace kesactl

#endif
