#ifndef COMM_EPOLLSET_H
#define COMM_EPOLLSET_H

#include <comm/Clock.h>

#include <sys/epoll.h>

#include <array>
#include <span>
#include <string>

namespace comm {

/// The kernel's side of an I/O loop: the descriptors that it waits for, a wake-up and a timer. A wait costs one
/// `epoll_wait` and no other system call: a descriptor is registered once, level-triggered, and stays armed; the
/// wake-up descriptor is edge-triggered and never read. So is the timer descriptor, which is set when a timer comes
/// before the time it is set to: a wait with a time limit would set up and take back a timer of the kernel's each time.
///
/// Used by the loop's thread, but for `wake`, which any may call.
class EpollSet {
public:
    /// Ends the process when there is no descriptor left for it.
    explicit EpollSet(const std::string& loopName);
    ~EpollSet();
    EpollSet(const EpollSet&) = delete;
    EpollSet& operator=(const EpollSet&) = delete;

    // With what `interest` names, `Reactor::eREADABLE` and so on, a wait ends with an event whose `data.ptr` is `whom`.
    // True: not watched; the reason is in `obr::ErrorStorage`.
    [[nodiscard]] bool add(int descriptor, unsigned interest, void* whom);
    [[nodiscard]] bool change(int descriptor, unsigned interest, void* whom);
    [[nodiscard]] bool remove(int descriptor);
    static unsigned readiness(const epoll_event& event) noexcept;

    /// Ends the wait under way, or the next one, with an event that `isWake`.
    void wake() const noexcept;
    static bool isWake(const epoll_event& event) noexcept { return event.data.ptr == nullptr; }

    /// Lets a wait end at `next`, or before, with an event that `isTimer`. What it is set to for a timer that was
    /// cancelled stays: one turn for nothing.
    void setTimer(TimeNs next) noexcept;
    bool isTimer(const epoll_event& event) const noexcept { return event.data.ptr == &m_timer; }
    /// Once it has come.
    void timerCame() noexcept { m_timerSetTo = NEVER; }

    /// What has happened; valid until the next wait. `mayBlock`: waits until something has.
    std::span<const epoll_event> wait(bool mayBlock) noexcept;

private:
    [[nodiscard]] bool control(int operation, int descriptor, unsigned interest, void* whom) const;

    const std::string m_loopName;
    int m_epoll = -1;
    int m_wake = -1;
    int m_timer = -1;
    TimeNs m_timerSetTo = NEVER; ///< not later than the first of the timers, while the loop waits
    std::array<epoll_event, 64> m_events;
};

} // namespace comm

#endif
