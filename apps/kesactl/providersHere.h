#ifndef KESACTL_PROVIDERSHERE_H
#define KESACTL_PROVIDERSHERE_H

#include <comm/Clock.h>

#include <sys/types.h>

#include <optional>
#include <string>

namespace kesactl {

struct ProviderHere {
    std::string name; ///< as in locators
    pid_t pid;
    bool isYoung; ///< it started so recently that a registry may not know it yet
};

/// Whether a process, or a registry, that started then may not have found the other yet. `started`: on the wall clock.
bool isYoung(comm::TimeNs started);

/// A process of the chosen run directory that says of itself that it provides a path, whatever any registry knows.
/// Asks them all; blocks until the deadline at the latest.
std::optional<ProviderHere> findProviderHere(const std::string& path, comm::TimeNs deadline);

} // namespace kesactl

#endif
