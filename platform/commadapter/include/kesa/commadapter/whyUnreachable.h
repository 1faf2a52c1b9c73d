#ifndef KESA_COMMADAPTER_WHYUNREACHABLE_H
#define KESA_COMMADAPTER_WHYUNREACHABLE_H

#include <comm/Clock.h>
#include <kesa/url.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace kesa::commadapter {

/// How far an attempt to reach a service by its locator came.
struct Unreachable {
    enum class Cause {
        eNONE,          ///< all the way: its process answers, and provides the path
        eNOWHERE,       ///< the locator is not understood here: its scheme, run directory or path
        eMISSING,       ///< no process listens under the name
        eFORBIDDEN,     ///< this process lacks a right; the reason says which, and what to do
        eNOT_CONNECTED, ///< the connect failed for another reason
        eSILENT,        ///< somebody listens, and says nothing: stopped, busy or blocked
        eGARBAGE,       ///< what it says is not this protocol, or it hangs up
        eOTHER_VERSION, ///< it speaks other versions of the protocol
        eNOT_PROVIDED,  ///< its process answers, and does not provide the path
    };
    Cause cause = Cause::eNONE;
    std::string reason;    ///< such as "no process listens as \"media\" in \"/run/kesa\""; empty for `eNONE`
    std::int64_t pid = -1; ///< who listens; -1: unknown
};

/// For tools that explain why nobody answers at a locator: connects, says hello and asks for the path, on a loop of its
/// own. Blocks, at most for `within` once it is connected; not on a loop.
KESA_API Unreachable whyUnreachable(const url& locator, comm::TimeNs within = comm::SECOND);

/// The same at many locators at once. `found` hears of each as soon as it is known, by its number in `locators`, one
/// after the other on that loop; of none after this has returned.
KESA_API void whyUnreachable(const std::vector<url>& locators, comm::TimeNs within,
                             const std::function<void(std::size_t, Unreachable)>& found);

} // namespace kesa::commadapter

#endif
