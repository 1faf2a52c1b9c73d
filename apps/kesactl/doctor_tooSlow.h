#ifndef KESACTL_DOCTOR_TOOSLOW_H
#define KESACTL_DOCTOR_TOOSLOW_H

#include "DoctorPage.h"
#include "ProcessReport.h"

#include <comm/Clock.h>

#include <vector>

namespace kesactl {

/// Who takes what one of these processes sends more slowly than that comes. Those who have such peers are asked again,
/// since it may just have been something large; blocks until the deadline, or for a second if that is later.
void addTooSlow(DoctorPage& page, const std::vector<ProcessReport>& reports, comm::TimeNs deadline);

} // namespace kesactl

#endif
