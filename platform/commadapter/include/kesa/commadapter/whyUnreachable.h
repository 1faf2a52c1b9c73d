#ifndef KESA_COMMADAPTER_WHYUNREACHABLE_H
#define KESA_COMMADAPTER_WHYUNREACHABLE_H

#include <kesa/url.h>

#include <string>

namespace kesa::commadapter {

struct Unreachable {
    std::string reason;       ///< such as "no process listens as \"media\" in \"/run/kesa\""; empty: somebody listens
    bool isForbidden = false; ///< this process lacks a right; the reason says which, and what to do
};

/// For tools that explain why nobody answers at a locator: one attempt to connect, on a loop of its own. Blocks; not on
/// a loop.
KESA_API Unreachable whyUnreachable(const url& locator);

} // namespace kesa::commadapter

#endif
