#ifndef COMM_CONDITION_H
#define COMM_CONDITION_H

#include <comm/Clock.h>

#include <functional>
#include <memory>
#include <mutex>

namespace comm {

class ActiveObject;
class IConditionImpl;

/// Where one loop waits for what another does; a condition variable that goes through `comm::Scheduler`. The
/// simulated one runs the other loops until the predicate holds; nothing left to run is a reported deadlock.
class KESA_API Condition {
public:
    Condition();
    ~Condition();
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /// With the mutex held when the one who waits may destroy this object as soon as it returns.
    void notifyAll();

private:
    friend bool waitFor(Condition&, std::unique_lock<std::mutex>&, const std::function<bool()>&, TimeNs);
    std::unique_ptr<IConditionImpl> m_impl;
};

/// Waits, with `lock` released meanwhile, until `predicate` holds or the clock reaches `deadline`; answers what
/// `predicate` says at the end. Who makes the predicate true changes its state under the same mutex and then calls
/// `notifyAll`.
KESA_API bool waitFor(Condition& condition, std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate,
                      TimeNs deadline = NEVER);

/// Runs `work` on the loop of `activeObject` and returns when it has run; inside that loop: at once. False when the
/// active object had stopped: then `work` did not run.
KESA_API bool runAndWait(ActiveObject& activeObject, const std::function<void()>& work);

} // namespace comm

#endif
