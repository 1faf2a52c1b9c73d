#ifndef KESACTL_ASKPROCESSES_H
#define KESACTL_ASKPROCESSES_H

#include <comm/Clock.h>
#include <util/config/Value.h>

#include <map>
#include <string>
#include <vector>

namespace kesactl {

/// What a process has said of itself: docs/protocol.md has its members.
struct Said {
    enum class WhyNot {
        eSILENT,        ///< it cannot be connected to, or says nothing in time
        eOTHER_VERSION, ///< of the protocol
        eDOES_NOT_SAY,  ///< as one of an earlier version, or in another language
    };
    util::config::Value answer; ///< undefined when it has not answered
    WhyNot whyNot = WhyNot::eSILENT;
    std::string reason; ///< as a sentence without its end
};

/// Asks processes of the run directory, by their names as in locators, all at once; without a registry. The connections
/// that this makes are not told. Returns when all have answered, or at the deadline.
std::map<std::string, Said> askProcesses(const std::vector<std::string>& names, comm::TimeNs deadline);

} // namespace kesactl

#endif
