#ifndef KESACTL_EXPLAINUNREACHABLE_H
#define KESACTL_EXPLAINUNREACHABLE_H

#include <kesa/url.h>

#include <string>

namespace kesactl {

/// Why nobody answers at a locator.
struct Unreached {
    std::string cause;            ///< a word of docs/why.md: "slow" when it does answer, though perhaps too late
    std::string text;             ///< for people
    std::string advice;           ///< what to do; may be empty
    bool isSomebodyThere = false; ///< a process can be connected to

    std::string sentence() const { return advice.empty() ? text : text + "; " + advice; }
};

/// Asks there once more, and looks at the process. Blocks for up to two seconds.
Unreached explainUnreachable(const kesa::url& locator);

} // namespace kesactl

#endif
