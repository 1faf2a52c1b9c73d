#ifndef KESACTL_DOCTOR_RUNDIRECTORY_H
#define KESACTL_DOCTOR_RUNDIRECTORY_H

#include "DoctorPage.h"
#include "ProcessReport.h"
#include "RunDirectoryFacts.h"

#include <comm/Clock.h>
#include <transport/RunDirectory.h>

#include <string>
#include <vector>

namespace kesactl {

/// The run directory that counts, and the processes that have names in it; answers what they say. `silent`: a process
/// of which another finding says already that it does not answer; may be empty.
std::vector<ProcessReport> addRunDirectory(DoctorPage& page,
                                           const kesa::commadapter::transport::RunDirectory& directory,
                                           const RunDirectoryFacts& facts, const std::string& silent,
                                           comm::TimeNs deadline);

/// The others of this machine.
void addOthers(DoctorPage& page, const RunDirectoryFacts& chosen);

} // namespace kesactl

#endif
