#ifndef KESACTL_POLICYNOW_H
#define KESACTL_POLICYNOW_H

#include <comm/Clock.h>
#include <kesa/url.h>
#include <util/config/Value.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kesactl {

/// What the policy of a registry says now of what it forbade before: a process tells what it was refused for as long as
/// it runs. Needs a `System`. Asks when that is first needed, and not after the deadline.
class PolicyNow {
public:
    PolicyNow(kesa::url registry, comm::TimeNs deadline);

    /// A registration that was refused, or ended.
    struct Forbidden {
        std::string process;
        std::int64_t uid; ///< whose process
        std::string path;
        comm::TimeNs when;     ///< on the wall clock
        std::string because{}; ///< what was said then
    };
    struct Since {
        std::string text;   ///< "; the policy was read again at 12:00:00, and lets it now: rule 1 …"
        std::string advice; ///< what to do
    };
    /// Empty when the policy is still the one that has forbidden it, and when the registry does not say.
    Since since(const Forbidden& then);

private:
    const kesa::url m_registry;
    const comm::TimeNs m_deadline;
    std::optional<util::config::Value> m_policy; ///< absent: not asked for yet
};

} // namespace kesactl

#endif
