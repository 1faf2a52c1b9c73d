#ifndef KESACTL_EXPLAINUNREACHABLE_H
#define KESACTL_EXPLAINUNREACHABLE_H

#include <kesa/commadapter/whyUnreachable.h>
#include <kesa/url.h>

#include <string>

namespace kesactl {

/// Why nobody answers at a locator.
struct Unreached {
    std::string cause;            ///< a word of docs/why.md: "slow" when it does answer, though perhaps too late
    std::string text;             ///< for people
    std::string advice;           ///< what to do; may be empty
    bool isSomebodyThere = false; ///< a process can be connected to

    /// Whether that may change while it is waited for.
    bool mayPass() const { return cause != "rights" && cause != "other-version" && cause != "garbage"; }
    std::string sentence() const { return advice.empty() ? text : text + "; " + advice; }
};

/// In words, what an attempt at a locator has found; looks at the process.
Unreached explain(const kesa::url& locator, const kesa::commadapter::Unreachable& found);

/// Asks there once more, and looks at the process. Blocks, at most for `within`.
Unreached explainUnreachable(const kesa::url& locator, comm::TimeNs within);

/// Of the time until `deadline` the last part is for an explanation, should there be no answer by then: from when on.
/// So both together take no longer than the user wants to wait.
comm::TimeNs timeToExplain(comm::TimeNs deadline);

} // namespace kesactl

#endif
