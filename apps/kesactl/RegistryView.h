#ifndef KESACTL_REGISTRYVIEW_H
#define KESACTL_REGISTRYVIEW_H

#include "explainUnreachable.h"

#include <comm/Clock.h>
#include <comm/Condition.h>
#include <kesa/Disposable.h>
#include <kesa/Response.h>
#include <kesa/serviceregistry/RegistryUpdate.h>
#include <kesa/serviceregistry/ServiceDef.h>
#include <kesa/url.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kesactl {

using kesa::serviceregistry::ServiceDef;
using Services = std::map<std::string, ServiceDef>; // by path

/// From the start of a registry until every provider has found it again: their longest pause, and some.
inline constexpr comm::TimeNs SETTLING = 1500 * comm::MILLISECOND;

/// What the registry says about the services that match a glob, kept true for as long as this object lives: by a query
/// at the registry itself, repeated after each loss of the connection. A query, also for a single path: tracking a path
/// gets no answer when nothing is there.
///
/// Used by the thread that made it, which blocks; fed by the runtime.
class RegistryView {
public:
    /// One change, in the order in which the registry tells them.
    struct Event {
        enum class Kind { eADDED, eREMOVED, eREGISTRY_LOST, eREGISTRY_FOUND, eLEFT_OUT };
        Kind kind;
        ServiceDef service;      ///< for the first two
        std::size_t leftOut = 0; ///< for the last one: so many changes. What follows leads to what is there
    };

    struct Answer {
        Services services;
        bool isAll; ///< false: the registry has just started, and services of before may not have returned to it
    };

    RegistryView(std::vector<kesa::url> locators, const std::string& glob);
    ~RegistryView();
    RegistryView(const RegistryView&) = delete;
    RegistryView& operator=(const RegistryView&) = delete;

    // Each ends with a `Failure` when the registry refuses to tell, and once it is interrupted.

    /// Waits for the registry. A `Failure` when it has not answered by the deadline.
    void await(comm::TimeNs deadline);
    /// Once: they are moved out. The services at the moment, as soon as these are all (`isAnyEnough`: or there is one);
    /// at the deadline, what is known. A `Failure` when the registry has told nothing.
    Answer list(comm::TimeNs deadline, bool isAnyEnough = false);
    /// Waits until there are some (`isGone`: none). False at the deadline; a `Failure` when the registry could not be
    /// asked at all.
    bool waitFor(bool isGone, comm::TimeNs deadline, Answer& answer);
    /// When it had told all that was there, of this connection; NEVER while it has not.
    comm::TimeNs answeredAt();
    /// How a command ends that had to know all.
    [[noreturn]] static void failUnsettled();
    /// The next change, whenever it comes. Who takes them too slowly is told of some only by what has come of them.
    Event next();
    /// The reader of the output has gone. Any thread.
    void interrupt();

private:
    struct State;
    bool await(std::unique_lock<std::mutex>& lock, comm::TimeNs deadline, const std::function<bool()>& predicate);
    [[noreturn]] void fail(const Unreached& why) const;

    const std::vector<kesa::url> m_locators;
    std::shared_ptr<State> m_state;
    kesa::Disposable m_subscription;
};

} // namespace kesactl

#endif
