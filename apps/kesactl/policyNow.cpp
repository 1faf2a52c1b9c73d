#include "policyNow.h"

#include "ProcessReport.h"
#include "registryPolicy.h"

#include <rules/usersAndGroups.h>

#include <fmt/format.h>

#include <utility>

namespace kesactl {

using util::config::Value;

PolicyNow::PolicyNow(kesa::url registry, comm::TimeNs deadline) : m_registry(std::move(registry)), m_deadline(deadline)
{}

PolicyNow::Since PolicyNow::since(const Forbidden& then)
{
    if (!m_policy) {
        m_policy = askPolicy(m_registry, m_deadline);
    }
    const comm::TimeNs read = timeOf((*m_policy)["read"]);
    if (read <= then.when) {
        return {};
    }
    Value may = askMay(m_registry, then.process, then.uid, then.path, m_deadline);
    if (!may.isDefined()) { // it asks the registry for nothing any more
        may = askMay(m_registry, std::to_string(then.uid), then.uid, then.path, m_deadline);
    }
    const Value& now = may["register"];
    const std::string again = fmt::format("; the policy was read again at {}", asLocalTime(read));
    const std::string command =
        mayCommand(kesa::access::userName(static_cast<uid_t>(then.uid)), then.uid, "register", then.path);
    if (!now.isDefined()) {
        return {again, fmt::format("{} says what it says now; when it allows it, restart it: a refused registration is "
                                   "not repeated",
                                   command)};
    }
    const std::string because = now["because"].toText();
    if (now["allowed"] == true) {
        return {fmt::format("{}, and allows it now: {}", again, because),
                "restart it, if it does not register anew by itself: a refused registration is not repeated"};
    }
    const bool isSaid = then.because.find(because) != std::string::npos;
    return {fmt::format("{}, and does not allow it either{}", again, isSaid ? "" : ": " + because),
            fmt::format("write a rule that allows it ({} says which there are) and have the policy read again, then "
                        "restart it",
                        command)};
}

} // namespace kesactl
