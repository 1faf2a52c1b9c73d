#ifndef COMM_ONANYLOOP_H
#define COMM_ONANYLOOP_H

#include <obr/api.h>

#include <string_view>

namespace comm {

class Reactor;

struct LoopInfo {
    std::string_view name; ///< as given to `ActiveObject` or `Scheduler::makeReactor`
    Reactor* reactor;      ///< the loop, when it is one that waits for descriptors; null for an active object

    bool isReactor() const noexcept { return reactor != nullptr; }
};

/// The loop whose event or callback is running on this thread, valid during that; null outside of any.
KESA_API const LoopInfo* currentLoop() noexcept;

/// Whether waiting here keeps a loop from its work.
inline bool onAnyLoop() noexcept
{
    return currentLoop() != nullptr;
}

} // namespace comm

#endif
