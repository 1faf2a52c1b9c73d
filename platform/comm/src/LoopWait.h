#ifndef COMM_LOOPWAIT_H
#define COMM_LOOPWAIT_H

#include "monotonicClock.h"

#include <utility>

namespace comm {

/// How long a thread has waited for other loops: what a loop does itself may take long because the machine does not let
/// another one run, and nobody's handler is to blame then. Each function of its thread alone.
class LoopWait {
public:
    /// A wait, as long as this lives.
    class Scope {
    public:
        Scope() noexcept : m_start(readClock(CLOCK_MONOTONIC_COARSE)) {}
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;
        ~Scope() { s_waited += readClock(CLOCK_MONOTONIC_COARSE) - m_start; }

    private:
        const TimeNs m_start;
    };

    /// Since this was asked last.
    static TimeNs take() noexcept { return std::exchange(s_waited, 0); }

private:
    static inline thread_local TimeNs s_waited = 0;
};

} // namespace comm

#endif
