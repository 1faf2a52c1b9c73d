#ifndef COMM_REACTOR_H
#define COMM_REACTOR_H

#include <comm/Clock.h>
#include <util/UniqueFunction.h>

#include <cstdint>

namespace comm {

/// An I/O loop: work, timers and the readiness of descriptors, one callback at a time on one thread. Made by
/// `comm::Scheduler`; a simulated one has no descriptors.
///
/// Threads: `post`, `stop`, `heldFor` and `isCurrent` from any; everything else on the loop itself (asserted). After
/// `stop` all of it may be called from any thread and does nothing. A callback may call anything here but `stop`.
class KESA_API Reactor {
public:
    using Task = util::UniqueFunction<void()>;
    using Id = std::uint64_t; ///< counts up, never 0, never used again

    virtual ~Reactor();

    /// Runs `task` on the loop, after what was posted before it, never inside the call. After `stop` it is
    /// destroyed here.
    virtual void post(Task task) = 0;

    /// Runs `task` once the clock reaches `when`, never earlier and a millisecond later at most while the loop is idle;
    /// a time in the past is the next turn of the loop.
    virtual Id startTimer(TimeNs when, Task task) = 0;
    /// The timer does not run any more. Unknown and expired ids are ignored.
    virtual void cancelTimer(Id id) = 0;

    /// Events of a descriptor, as bits.
    enum Readiness : unsigned { eNONE = 0, eREADABLE = 1, eWRITABLE = 2, eHANGUP = 4 };
    using ReadyFunction = util::UniqueFunction<void(unsigned readiness)>;

    /// Calls `ready` while `descriptor` has one of `interest` (level-triggered; `eHANGUP` is always reported).
    /// The descriptor stays the caller's and stays open until `unwatch`. 0 when the kernel has no memory for it, with
    /// the reason in `obr::ErrorStorage`.
    virtual Id watch(int descriptor, unsigned interest, ReadyFunction ready) = 0;
    virtual void changeInterest(Id id, unsigned interest) = 0;
    /// `ready` is not called any more, also not for what this turn of the loop has already seen.
    virtual void unwatch(Id id) = 0;

    /// Inside `ready`: whether no other descriptor that is known to be ready waits for its own. False is always right.
    virtual bool isLastReady() const noexcept { return false; }

    /// Runs `task` when the callbacks of the current turn are done and before the loop waits again: the place to
    /// flush what they gathered.
    virtual void atTurnEnd(Task task) = 0;

    /// A callback that runs longer keeps others waiting noticeably.
    static constexpr TimeNs LONG_CALLBACK = 50 * MILLISECOND;
    /// Divides a callback that does several things, so that the one that takes long can be named: how long the loop was
    /// kept from others since the callback began, or since this was asked last in it; 0 up to `LONG_CALLBACK`. Time in
    /// which the thread could run and had no processor is not counted. The caller traces what is not 0; the loop does
    /// for what is left at the end of the callback.
    virtual TimeNs lap() = 0;
    /// How long the callback under way has held the loop, since it began or since its last lap; exact to some
    /// milliseconds, and without what its thread has waited for a processor, as `lap`. 0 when none is under way. Any
    /// thread.
    virtual TimeNs heldFor() const noexcept = 0;

    /// Runs what was posted before it, drops timers and watches, ends the loop and waits for it. Twice is harmless.
    virtual void stop() = 0;
    virtual bool isCurrent() const noexcept = 0;
};

} // namespace comm

#endif
