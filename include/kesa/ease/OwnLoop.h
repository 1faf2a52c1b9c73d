#ifndef KESA_EASE_OWNLOOP_H
#define KESA_EASE_OWNLOOP_H

#include <comm/ActiveObject.h>
#include <comm/Clock.h>
#include <comm/LoopHold.h>
#include <comm/onAnyLoop.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace kesa::detail {

/// A loop of the program's own that was given to `on`: whether a call runs on it, and what it is calling, for whoever
/// watches. There is one of each loop. The loop is not owned, not even for a moment: whoever asks may run on it, and
/// must not be the last who lets go of it.
class KESA_API OwnLoop {
public:
    /// Any thread. Never null; of null it is one that does nothing.
    static std::shared_ptr<OwnLoop> of(const std::shared_ptr<comm::ActiveObject>& loop);
    /// `found` is called for each that there is, then for each new one, with a lock held, so it may do nothing but
    /// post. An empty one ends that. Any thread.
    static void watchAll(std::function<void(const std::shared_ptr<const OwnLoop>&)> found);

    explicit OwnLoop(const std::shared_ptr<comm::ActiveObject>& loop);
    OwnLoop(const OwnLoop&) = delete;
    OwnLoop& operator=(const OwnLoop&) = delete;

    /// On the loop, before it serves anything.
    void noteHere() noexcept { m_here = comm::currentLoop(); }
    /// This call runs on it, so that nothing is served there before it returns. Any thread, as the next ones.
    bool isHere() const noexcept
    {
        const comm::LoopInfo* const here = comm::currentLoop();
        return here != nullptr && here == m_here && !m_loop.expired(); // else another may be in its place
    }
    bool hasEnded() const noexcept { return m_loop.expired(); }
    const std::string& name() const noexcept { return m_hold.loop(); }
    const comm::LoopHold& hold() const noexcept { return m_hold; }
    /// How many requests wait for it.
    unsigned waiting() const noexcept { return m_waiting; }

    /// A request that waits for it, until the first end.
    class Waiting {
    public:
        explicit Waiting(std::shared_ptr<OwnLoop> loop) noexcept : m_loop(std::move(loop)) { ++m_loop->m_waiting; }
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;
        ~Waiting() { end(); }
        /// Any thread.
        void end() noexcept
        {
            if (!m_hasEnded.exchange(true)) {
                --m_loop->m_waiting;
            }
        }
        OwnLoop& loop() const noexcept { return *m_loop; }

    private:
        const std::shared_ptr<OwnLoop> m_loop;
        std::atomic<bool> m_hasEnded{false};
    };

    /// A call that the loop makes, while this lives; see `comm::LoopHold::Call`. Loop only.
    template <class Describe>
    class Call {
    public:
        Call(OwnLoop& loop, const Describe& describe) noexcept : m_time(loop), m_call(loop.m_hold, describe) {}

    private:
        struct Time {
            explicit Time(OwnLoop& l) noexcept : loop(l) { loop.m_begun = comm::now(); }
            Time(const Time&) = delete;
            Time& operator=(const Time&) = delete;
            ~Time() { loop.m_begun = 0; }
            OwnLoop& loop;
        };
        Time m_time;
        comm::LoopHold::Call<Describe> m_call;
    };

private:
    comm::TimeNs heldFor() const noexcept
    {
        const comm::TimeNs begun = m_begun;
        return begun == 0 ? 0 : comm::now() - begun;
    }

    const std::weak_ptr<comm::ActiveObject> m_loop;
    std::atomic<const comm::LoopInfo*> m_here{nullptr};
    std::atomic<comm::TimeNs> m_begun{0}; ///< of the call under way; 0: none is
    std::atomic<unsigned> m_waiting{0};
    comm::LoopHold m_hold;
};

} // namespace kesa::detail

#endif
