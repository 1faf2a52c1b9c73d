#ifndef KESA_COMMADAPTER_PROTOCOL_TIMESLICE_H
#define KESA_COMMADAPTER_PROTOCOL_TIMESLICE_H

#include <comm/Clock.h>

#include <algorithm>
#include <utility>

namespace kesa::commadapter::protocol {

/// How long messages are handled in one go, so that a peer that sends very many leaves the loop to the others. It looks
/// at the clock the more rarely the less each message takes, since for the quickest a look costs as much as a message.
class TimeSlice {
public:
    /// `until`: `comm::NEVER` is no bound.
    void begin(comm::TimeNs now, comm::TimeNs until) noexcept
    {
        m_lastLook = now;
        m_until = until;
    }
    /// To be asked between one message and the next.
    bool isOver()
    {
        if (--m_left > 0) {
            return false;
        }
        const comm::TimeNs now = comm::now();
        const comm::TimeNs took = now - std::exchange(m_lastLook, now);
        m_stride = took > SLOW ? 1 : took < QUICK ? std::min(2 * m_stride, LONGEST_STRIDE) : m_stride;
        m_left = m_stride;
        return now >= m_until;
    }

private:
    static constexpr comm::TimeNs QUICK = comm::MILLISECOND / 50;
    static constexpr comm::TimeNs SLOW = comm::MILLISECOND / 5;
    static constexpr int LONGEST_STRIDE = 16;

    comm::TimeNs m_until = comm::NEVER;
    comm::TimeNs m_lastLook = 0;
    int m_stride = 1; ///< messages from one look to the next
    int m_left = 1;
};

} // namespace kesa::commadapter::protocol

#endif
