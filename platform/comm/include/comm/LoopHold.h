#ifndef COMM_LOOPHOLD_H
#define COMM_LOOPHOLD_H

#include <comm/Clock.h>
#include <obr/api.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

namespace comm {

/// What holds a loop while it does, for other threads. The loop notes each foreign call that it makes and pays a few
/// plain stores for it; whoever asks pays for their being seen.
class KESA_API LoopHold {
    struct Entry {
        std::string (*name)(const void* describe);
        const void* describe;
    };

public:
    /// `loop` is its name in texts: "executor". `heldFor` is as of `Reactor::heldFor`.
    LoopHold(std::string loop, std::function<TimeNs()> heldFor);
    LoopHold(const LoopHold&) = delete;
    LoopHold& operator=(const LoopHold&) = delete;

    /// What `describe` answers is whom the loop calls while this lives; it runs on the thread that asks. Loop only.
    /// Inside of another one it counts instead of that.
    template <class Describe>
    class Call {
    public:
        Call(LoopHold& hold, const Describe& describe) noexcept
            : m_hold(hold), m_entry{&name, &describe}, m_outer(hold.m_current.load(std::memory_order_relaxed))
        {
            hold.m_current.store(&m_entry, std::memory_order_release);
            std::atomic_signal_fence(std::memory_order_seq_cst);
            if (hold.m_isQuiet.load(std::memory_order_relaxed)) {
                hold.wake();
            }
        }
        Call(const Call&) = delete;
        Call& operator=(const Call&) = delete;
        ~Call() { m_hold.leave(m_outer); }

    private:
        static std::string name(const void* describe) { return (*static_cast<const Describe*>(describe))(); }

        LoopHold& m_hold;
        const Entry m_entry;
        const Entry* const m_outer;
    };

    const std::string& loop() const noexcept { return m_loop; }
    /// 0 as well while it calls nobody: what it does itself may wait for another loop, which is held then. Any thread,
    /// as the next ones.
    TimeNs heldFor() const { return m_current.load(std::memory_order_relaxed) == nullptr ? 0 : m_heldFor(); }
    /// Whom the loop is calling; "a handler" when that is not known.
    std::string holder() const;
    /// False when it is calling nobody: then the next call that begins runs `wake`, once, and that may do nothing but
    /// post. It takes the place of the last `wake`; an empty one only does away with that.
    bool isCalling(std::function<void()> wake) const;

private:
    /// A reader has either seen `outer` or is seen here, by the barrier that it puts between its two steps.
    void leave(const Entry* outer) noexcept
    {
        m_current.store(outer, std::memory_order_release);
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (m_isRead.load(std::memory_order_acquire)) {
            waitForReader();
        }
    }
    void waitForReader() noexcept;
    void wake();

    const std::string m_loop;
    const std::function<TimeNs()> m_heldFor;
    std::atomic<const Entry*> m_current{nullptr};
    mutable std::atomic<bool> m_isRead{false};
    mutable std::atomic<bool> m_isQuiet{false}; ///< somebody wants to hear of the next call
    mutable std::mutex m_mutex;                 ///< held while the entry is read
    mutable std::function<void()> m_wake;       ///< under the mutex
};

} // namespace comm

#endif
