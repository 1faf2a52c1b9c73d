#ifndef KESACTL_ASKPROCESSES_H
#define KESACTL_ASKPROCESSES_H

#include "explainUnreachable.h"

#include <comm/Clock.h>
#include <util/config/Value.h>

#include <map>
#include <string>
#include <vector>

namespace kesactl {

/// What a process has said of itself: docs/protocol.md has its members.
struct Said {
    util::config::Value answer; ///< undefined when it has not answered
    Unreached why;              ///< why not; "not-provided": it does not say what it is
    comm::TimeNs after = 0;     ///< from the question to the answer
};

/// Asks processes of the run directory, by their names as in locators; without a registry. The connections that this
/// makes are not told. All are asked at once if this process may have descriptors enough, else some after others, and
/// then they share the time until `deadline`. Returns when all have answered or shown that they will not, or have had
/// their time; that in which this process stood still does not count.
std::map<std::string, Said> askProcesses(const std::vector<std::string>& names, comm::TimeNs deadline);

} // namespace kesactl

#endif
