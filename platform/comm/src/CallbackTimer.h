#ifndef COMM_CALLBACKTIMER_H
#define COMM_CALLBACKTIMER_H

#include "ProcessorWait.h"
#include "monotonicClock.h"

#include <comm/Reactor.h>

#include <algorithm>
#include <atomic>

namespace comm {

/// How long each callback of a loop, or each lap of one, kept the loop from others. Its thread alone, but for
/// `heldFor`. Of the coarse clock: exact to some milliseconds, and nearly free.
class CallbackTimer {
public:
    /// The next callback begins now. Not needed after `end`.
    void start() { m_callbackStart = m_lapStart = readClock(CLOCK_MONOTONIC_COARSE); }
    /// `heldFor` is of the lap that began last, from here to `setIdle`.
    void setHeld() noexcept { m_heldSince.store(m_lapStart, std::memory_order_relaxed); }
    void setIdle() noexcept { m_heldSince.store(0, std::memory_order_relaxed); }
    /// `Reactor::heldFor`.
    TimeNs heldFor() const noexcept
    {
        const TimeNs since = m_heldSince.load(std::memory_order_relaxed);
        const TimeNs lasted = since == 0 ? 0 : readClock(CLOCK_MONOTONIC_COARSE) - since;
        return lasted <= Reactor::LONG_CALLBACK ? lasted : std::max<TimeNs>(lasted - m_processorWait.sinceAnew(), 0);
    }

    /// What of the callback no lap has told; 0 up to `Reactor::LONG_CALLBACK`. The next one begins now.
    TimeNs end()
    {
        const TimeNs now = readClock(CLOCK_MONOTONIC_COARSE);
        const TimeNs worked = workedSince(m_callbackStart, now);
        m_callbackStart = m_lapStart = now;
        return worked > Reactor::LONG_CALLBACK ? worked : 0;
    }

    /// `Reactor::lap`.
    TimeNs lap()
    {
        const TimeNs now = readClock(CLOCK_MONOTONIC_COARSE);
        const TimeNs lasted = now - m_lapStart;
        const TimeNs worked = workedSince(m_lapStart, now);
        const bool isLong = worked > Reactor::LONG_CALLBACK;
        m_callbackStart += isLong ? lasted : lasted - worked; // what is told here, and what is nobody's doing
        m_lapStart = now;
        setHeld();
        return isLong ? worked : 0;
    }

    /// To be called between callbacks now and then.
    void refresh() { m_processorWait.refresh(m_callbackStart); }

private:
    TimeNs workedSince(TimeNs start, TimeNs end)
    {
        const TimeNs lasted = end - start;
        return lasted <= Reactor::LONG_CALLBACK ? lasted
                                                : std::max<TimeNs>(lasted - m_processorWait.sinceRefresh(end), 0);
    }

    TimeNs m_callbackStart = 0; ///< later by what `lap` has told or taken off
    TimeNs m_lapStart = 0;
    std::atomic<TimeNs> m_heldSince{0}; ///< 0: no callback is under way; others read it for texts only
    ProcessorWait m_processorWait;
};

} // namespace comm

#endif
