#ifndef KESACTL_REVIEWRUNDIRECTORY_H
#define KESACTL_REVIEWRUNDIRECTORY_H

#include <transport/RunDirectory.h>
#include <util/config/Complaint.h>

#include <optional>

namespace kesactl {

/// Why a process that this user starts could not provide services in that run directory; none: it could. Where the
/// document names it, the complaint has its path there. Nothing is changed or made in the directory.
std::optional<util::config::Complaint> reviewRunDirectory(const kesa::commadapter::transport::RunDirectory& directory);

} // namespace kesactl

#endif
