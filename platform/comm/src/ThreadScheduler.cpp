#include "ThreadScheduler.h"

#include "EpollReactor.h"
#include "LoopWait.h"
#include "ThreadRunLoop.h"
#include "monotonicClock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <ctime>

namespace comm {

namespace {

/// Counts the notices: who waits sleeps in the kernel only while the count is the one it read before it let go of the
/// mutex. The library's condition variable takes the mutex back as if others waited for it, so that giving it up costs
/// a system call, on the path of every blocking call.
class ThreadCondition final : public IConditionImpl {
public:
    void notifyAll() override
    {
        m_notices.fetch_add(1);
        if (m_waiting.load() > 0) {
            futex(FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
        }
    }

    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline) override
    {
        if (predicate()) {
            return true;
        }
        const LoopWait::Scope waits;
        while (!predicate()) {
            if (deadline != NEVER && monotonicNow() >= deadline) {
                return false;
            }
            m_waiting.fetch_add(1);
            const std::uint32_t seen = m_notices.load();
            lock.unlock();
            const timespec until{static_cast<time_t>(deadline / SECOND), static_cast<long>(deadline % SECOND)};
            futex(FUTEX_WAIT_BITSET_PRIVATE, seen, deadline == NEVER ? nullptr : &until);
            lock.lock();
            m_waiting.fetch_sub(1);
        }
        return true;
    }

private:
    /// A deadline is of the monotonic clock.
    void futex(int operation, std::uint32_t value, const timespec* until) noexcept
    {
        static_assert(sizeof m_notices == sizeof(std::uint32_t));
        ::syscall(SYS_futex, &m_notices, operation, value, until, nullptr, FUTEX_BITSET_MATCH_ANY);
    }

    std::atomic<std::uint32_t> m_notices{0};
    std::atomic<unsigned> m_waiting{0};
};

class ThreadScheduler final : public Scheduler {
public:
    std::unique_ptr<IRunLoop> makeRunLoop(const std::string& name) override
    {
        return std::make_unique<ThreadRunLoop>(name);
    }
    std::shared_ptr<Reactor> makeReactor(const std::string& name) override { return makeEpollReactor(name); }
    std::unique_ptr<IConditionImpl> makeCondition() override { return std::make_unique<ThreadCondition>(); }
    TimeNs now() const noexcept override { return monotonicNow(); }
};

} // namespace

Scheduler& threadScheduler()
{
    static Scheduler& instance = *new ThreadScheduler;
    return instance;
}

} // namespace comm
