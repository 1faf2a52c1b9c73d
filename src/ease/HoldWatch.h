#ifndef KESA_EASE_HOLDWATCH_H
#define KESA_EASE_HOLDWATCH_H

#include <comm/Clock.h>
#include <comm/LoopHold.h>
#include <comm/Reactor.h>
#include <kesa/ease/OwnLoop.h>
#include <kesa/runtime/v02/IReasons.h>

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

namespace kesa::detail {

/// Names whoever holds a loop of this process and does not let go of it, on a loop of its own: traces (3) on
/// "KESA_EASE", and tells `reasons`, until it is over. A loop of the program's own may be held, so that is
/// traced when requests wait for it. What returns after long is named by the loop itself. Wakes
/// nobody while nothing is called.
class HoldWatch {
public:
    explicit HoldWatch(std::shared_ptr<const runtime::v02::IReasons> reasons);
    HoldWatch(const HoldWatch&) = delete;
    HoldWatch& operator=(const HoldWatch&) = delete;
    ~HoldWatch();

    /// This process is to end: from now on what holds a loop is what that waits for, and is said again and again. Any
    /// thread.
    void expectEnd() { m_isEnding = true; }

private:
    using HeldLoop = runtime::v02::IReasons::HeldLoop;

    struct Watched {
        std::shared_ptr<const comm::LoopHold> hold;
        std::shared_ptr<const OwnLoop> own = {}; ///< whose hold it is; null: of a loop over which this process hears
        comm::TimeNs seen = 0;                   ///< when a hold was looked at last
        comm::TimeNs told = 0;                   ///< and told of last; of the process's end in this way:
        bool isToldOfEnd = false;
        bool isTold = false;               ///< this hold, of an own loop
        std::optional<HeldLoop> held = {}; ///< what `reasons` has been told
    };
    void addOwn(const std::shared_ptr<const OwnLoop>& own);
    void sleepOrLookLater();
    void lookLater();
    void look();
    void tellHeld() const;
    [[nodiscard]] bool lookAt(Watched& watched) const;
    void tell(Watched& watched, comm::TimeNs held, bool isSame) const;
    static void tellOfOwn(Watched& watched, comm::TimeNs held, bool isSame);

    const std::shared_ptr<const runtime::v02::IReasons> m_reasons;
    std::atomic<bool> m_isEnding{false};
    std::vector<Watched> m_watched; ///< this and the next of the own loop alone
    bool m_isLookingLater = false;
    const std::shared_ptr<comm::Reactor> m_loop;
};

} // namespace kesa::detail

#endif
