#ifndef KESACTL_DOCTOR_RUNDIRECTORY_H
#define KESACTL_DOCTOR_RUNDIRECTORY_H

#include "DoctorPage.h"
#include "ProcessReport.h"
#include "RegistryView.h"
#include "RunDirectoryFacts.h"
#include "policyNow.h"

#include <comm/Clock.h>
#include <transport/RunDirectory.h>

#include <string>
#include <vector>

namespace kesactl {

/// What the processes say that have names in the run directory. All are asked at once.
std::vector<ProcessReport> askAll(RunDirectoryFacts facts, comm::TimeNs deadline);

/// The run directory that counts, and those processes. `silent`: one of which another finding says already that it does
/// not answer; may be empty.
void addRunDirectory(DoctorPage& page, const kesa::commadapter::transport::RunDirectory& directory,
                     const RunDirectoryFacts& facts, const std::vector<ProcessReport>& reports,
                     const std::string& silent);

/// What processes of that directory say of themselves without being asked: also those that have no name there. `known`:
/// what the registry knows; null: it has not answered, as `policy` is then.
void addNoted(DoctorPage& page, const std::vector<ProcessReport>& reports, const RunDirectoryFacts& facts,
              const Services* known, PolicyNow* policy, comm::TimeNs deadline);

/// ", late: after 320 ms" of an answer; empty when it came soon enough.
std::string lateness(comm::TimeNs after);

/// The others of this machine.
void addOthers(DoctorPage& page, const RunDirectoryFacts& chosen);

} // namespace kesactl

#endif
