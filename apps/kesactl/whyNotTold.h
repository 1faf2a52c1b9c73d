#ifndef KESACTL_WHYNOTTOLD_H
#define KESACTL_WHYNOTTOLD_H

#include "Verdict.h"
#include "providersHere.h"

#include <comm/Clock.h>
#include <common/RegistryPlace.h>

namespace kesactl {

/// Whether a process is told of a service that is there, and if not, why; by what the registry tells of both. `answer`:
/// what the process says of itself; undefined: nothing. Blocks until the deadline at the latest.
Verdict explainProcess(const util::config::Value& explanation, const std::string& process, const std::string& path,
                       const apps::RegistryPlace& place, const util::config::Value& answer, comm::TimeNs deadline);

/// To a verdict about a process that could not be looked into: what is not known of it.
void addUnseen(Verdict& verdict, const std::string& process, const Unseen& unseen);

} // namespace kesactl

#endif
