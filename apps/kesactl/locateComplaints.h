#ifndef KESACTL_LOCATECOMPLAINTS_H
#define KESACTL_LOCATECOMPLAINTS_H

#include <runtime/v02/config/ConfigReport.h>

namespace kesactl {

/// Gives the complaints about a document that could be read their line and column, and the order in which they stand
/// there. A process, which shows none, does not look for them.
void locateComplaints(kesa::runtime::v02::ConfigReport& report);

} // namespace kesactl

#endif
