#ifndef KESA_COMMADAPTER_BACKEND_CLIENT_CALLUNDERWAY_H
#define KESA_COMMADAPTER_BACKEND_CLIENT_CALLUNDERWAY_H

#include "backend/connection/Waiter.h"

#include <comm/Condition.h>

#include <mutex>
#include <string>
#include <utility>

namespace kesa::commadapter {

/// The call into a user's code that the loop makes now, one at a time, and the wait for its end: how "nothing runs any
/// more when this returns" is kept. Whoever promises that takes away what would be called next, and then waits here.
/// Everything with the owner's lock held; `Key` is what the call is of, and `Key()` nobody.
template <class Key>
class CallUnderWay {
public:
    /// On the loop. The lock is released for the call itself, and for whatever the callee's destruction may call.
    class Scope {
    public:
        Scope(CallUnderWay& calls, Key key) noexcept : m_calls(calls), m_outer(std::exchange(calls.m_key, key)) {}
        ~Scope()
        {
            m_calls.m_key = m_outer;
            if (m_calls.m_waiting > 0) {
                m_calls.m_ended.notifyAll();
            }
        }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        CallUnderWay& m_calls;
        const Key m_outer;
    };

    /// Returns when no call of `key` runs. On the loop at once: there it comes from inside of it, or none runs. A wait
    /// of over a second is traced with `what`.
    void waitForEnd(std::unique_lock<std::mutex>& lock, Key key, bool isOnLoop, const std::string& what)
    {
        if (isOnLoop || key == Key() || m_key != key) {
            return;
        }
        ++m_waiting;
        waitTracing(
            m_ended, lock, [this, key] { return m_key != key; }, what);
        --m_waiting;
    }

private:
    Key m_key{};
    unsigned m_waiting = 0;
    comm::Condition m_ended;
};

} // namespace kesa::commadapter

#endif
