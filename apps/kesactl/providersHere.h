#ifndef KESACTL_PROVIDERSHERE_H
#define KESACTL_PROVIDERSHERE_H

#include "policyNow.h"
#include "replacedRealm.h"

#include <comm/Clock.h>
#include <util/config/Value.h>

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kesactl {

struct ProviderHere {
    std::string name;
    std::string authority; ///< the same as in locators
    pid_t pid;
    bool isYoung;               ///< it started so recently that a registry may not know it yet
    util::config::Value answer; ///< what it says of itself
};

/// Whether a process, or a registry, that started then may not have found the other yet. `started`: on the wall clock.
bool isYoung(comm::TimeNs started);

/// One that a handler of its own keeps from hearing of services and from registering any.
struct HeldProcess {
    std::string name;
    pid_t pid;
    std::string loop;   ///< "executor"
    std::string holder; ///< "the handler of trackService for '/a'"
    comm::TimeNs time;
    bool isOwn; ///< of this user
};

/// A process that has, or says to have, the name that was asked for.
struct RunningProcess {
    std::string who; ///< "media (process 812)"
    pid_t pid;
};

/// A process that runs and was refused the path.
struct RefusedHere {
    std::string text; ///< "media (process 813) was refused it at 12:00:01.000: 409: ..."
    std::string advice;
    PolicyNow::Forbidden then; ///< should it have been forbidden
    bool isForbidden;
};

/// Why a process cannot be looked into.
struct Unseen {
    std::string text;      ///< empty: it has answered
    std::string advice;    ///< may be empty
    bool isSilent = false; ///< it takes connections and says nothing, so its I/O loop is held
};

/// What the processes of the chosen run directory say of themselves, also those that cannot be asked, whatever any
/// registry knows.
struct ProcessesHere {
    std::optional<ProviderHere> provider;  ///< of the path that was asked for
    std::vector<HeldProcess> held;         ///< those of this user first
    std::optional<RunningProcess> running; ///< of the name that was asked alone
    std::string elsewhere; ///< "elsewhere, in /run/other: media (process 56); ...": of that name; empty: none is known
    Unseen unseen;         ///< of the one that was asked alone
    util::config::Value asked; ///< what that one says of itself; undefined: nothing
    /// "media (812)": what has connected to one of them and has no name here, since it provides nothing; no `kesactl`.
    std::vector<std::string> nameless;
    std::optional<RefusedHere> refused;
    std::string dropped;        ///< "media (process 813) ended its registration of ..."; empty: none did
    comm::TimeNs droppedAt = 0; ///< on the wall clock
    std::string refusedName;    ///< "media (813) was refused its name, which process 812 has"; empty: none was
    ReplacedRealm replaced;     ///< of all that have answered
    Unseen otherVersion;        ///< one of those that speak no version of this protocol, if there are any
};

/// Why a process that has said `answer` is not connected to `process`; empty when it is, or does not try.
std::string whyApart(const util::config::Value& answer, const std::string& process);

/// Asks them all, or the one of that name alone if it is not empty; blocks until the deadline at the latest.
/// `uid`: of what is said without being asked, only what processes of that user say; -1: of any.
ProcessesHere askProcessesHere(const std::string& path, const std::string& name, comm::TimeNs deadline,
                               std::int64_t uid = -1);

} // namespace kesactl

#endif
