#include "ThreadScheduler.h"

#include "EpollReactor.h"
#include "ThreadRunLoop.h"
#include "monotonicClock.h"

#include <chrono>
#include <condition_variable>

namespace comm {

namespace {

class ThreadCondition final : public IConditionImpl {
public:
    void notifyAll() override { m_condition.notify_all(); }

    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline) override
    {
        if (deadline == NEVER) {
            m_condition.wait(lock, predicate);
            return true;
        }
        // The library's steady clock is the kernel's monotonic one.
        const std::chrono::steady_clock::time_point until{std::chrono::nanoseconds(deadline)};
        return m_condition.wait_until(lock, until, predicate);
    }

private:
    std::condition_variable m_condition;
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
