#ifndef COMM_SCHEDULER_H
#define COMM_SCHEDULER_H

#include <comm/Clock.h>
#include <comm/IRunLoop.h>
#include <comm/Reactor.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace comm {

class IConditionImpl;

/// Where run loops, time and waiting come from: the one seam between Kesa and threads. The real one makes threads
/// and asks the kernel's monotonic clock; a simulated one, of the tests, runs all loops in one thread in an
/// order drawn from a seed, and its clock jumps when nothing can run.
class KESA_API Scheduler {
public:
    virtual ~Scheduler();
    virtual std::unique_ptr<IRunLoop> makeRunLoop(const std::string& name) = 0;
    virtual std::shared_ptr<Reactor> makeReactor(const std::string& name) = 0;
    virtual std::unique_ptr<IConditionImpl> makeCondition() = 0;
    virtual TimeNs now() const noexcept = 0;

    /// The installed one; real threads unless replaced.
    static Scheduler& current() noexcept;
    /// Replaces it for the whole process; null restores the real one. Returns the one before, null for the real
    /// one. Only while no loop, condition or reactor exists; the caller keeps `scheduler` alive meanwhile.
    static Scheduler* install(Scheduler* scheduler) noexcept;
};

/// The two operations behind `Condition`.
class KESA_API IConditionImpl {
public:
    virtual ~IConditionImpl();
    virtual void notifyAll() = 0;
    /// Returns with `lock` held once `predicate` (called with `lock` held) is true, or at `deadline`; answers what
    /// `predicate` answers then.
    virtual bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline) = 0;
};

} // namespace comm

#endif
