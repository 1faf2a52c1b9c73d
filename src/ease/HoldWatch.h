#ifndef KESA_EASE_HOLDWATCH_H
#define KESA_EASE_HOLDWATCH_H

#include <comm/Clock.h>
#include <comm/LoopHold.h>
#include <comm/Reactor.h>

#include <atomic>
#include <memory>
#include <vector>

namespace kesa::detail {

/// Names whoever holds a loop of this process and does not let go of it, on a loop of its own: traces (3) on
/// "KESA_EASE". What returns after long is named by the loop itself. Wakes nobody while nothing is called.
class HoldWatch {
public:
    using Holds = std::vector<std::shared_ptr<const comm::LoopHold>>;

    explicit HoldWatch(const Holds& holds);
    HoldWatch(const HoldWatch&) = delete;
    HoldWatch& operator=(const HoldWatch&) = delete;
    ~HoldWatch();

    /// This process is to end: from now on what holds a loop is what that waits for, and is said again and again. Any
    /// thread.
    void expectEnd() { m_isEnding = true; }

private:
    struct Watched {
        std::shared_ptr<const comm::LoopHold> hold;
        comm::TimeNs seen = 0; ///< when a hold was looked at last
        comm::TimeNs told = 0; ///< and told of last; of the process's end in this way:
        bool isToldOfEnd = false;
    };
    void sleepOrLookLater();
    void lookLater();
    void look();
    void tell(Watched& watched, comm::TimeNs held) const;

    std::atomic<bool> m_isEnding{false};
    std::vector<Watched> m_watched; ///< this and the next of the own loop alone
    bool m_isLookingLater = false;
    const std::shared_ptr<comm::Reactor> m_loop;
};

} // namespace kesa::detail

#endif
