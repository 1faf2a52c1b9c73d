// Time limits of requests. Each connection has one timer, for a time that no deadline is before. It is set for another
// time when an earlier deadline comes, which is seldom, and when it has run: in between requests come and go without
// anybody being woken. What runs out is cancelled like any other request, so nothing comes after its 504.
//
// A loop that stood still, as its process did, finds answers that were given in time, and not all at once: what the
// stream had no room for comes as the peer hears that there is. So nobody is judged until it has been quiet for a
// while, or for as long as is looked for what a peer sends that sends on and on. A loop that is late because its
// handlers take long looks no different, and tells a limit that much later. It looks in batches: meanwhile the loop is
// everybody's, and who is judged in the end is who was due when the last look began.

#include "backend/client/ClientConnection.h"

#include "backend/connection/channel.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kesa::commadapter {

namespace {

/// A timer that comes so late tells that the loop stood still.
constexpr comm::TimeNs LATE_TIMER = 10 * comm::MILLISECOND;
constexpr comm::TimeNs QUIET = 50 * comm::MILLISECOND;
constexpr comm::TimeNs LONGEST_LOOKING = comm::SECOND;
constexpr comm::TimeNs LOOK_PAUSE = 2 * comm::MILLISECOND;
/// What the pause between two looks counts at most: the process may stand still again meanwhile.
constexpr comm::TimeNs MOST_COUNTED = LONGEST_LOOKING / 2;

} // namespace

/// With the lock held, as the next two. `deadline` may be `comm::NEVER`.
void ClientConnection::limit(Stream& stream, comm::TimeNs deadline, Limited limited)
{
    if (deadline == comm::NEVER) {
        return;
    }
    stream.limited = limited;
    m_deadlines.add({deadline, stream.handle});
    if (deadline < m_timerDue) {
        m_timerDue = deadline;
        loop().post([self = std::static_pointer_cast<ClientConnection>(shared_from_this())] {
            const Lock lock(self->m_lock);
            self->setTimer();
        });
    }
}

void ClientConnection::unlimit(Stream& stream) noexcept
{
    if (stream.limited != Limited::eNOT) {
        stream.limited = Limited::eNOT;
        m_deadlines.ended();
    }
}

bool ClientConnection::isLimited(std::uint64_t handle)
{
    const Stream* const stream = m_streams.find(streamOf(handle));
    return stream != nullptr && stream->handle == handle && stream->limited != Limited::eNOT;
}

/// With the lock held.
void ClientConnection::setTimer()
{
    loop().reactor()->cancelTimer(m_timer);
    m_timer = 0;
    if (m_timerDue != comm::NEVER) {
        m_timer = loop().startTimer(m_timerDue, [weak = weak_from_this()] {
            if (const auto held = weak.lock()) {
                static_cast<ClientConnection&>(*held).expire();
            }
        });
    }
}

void ClientConnection::expire()
{
    Lock lock(m_lock);
    const comm::TimeNs now = comm::now();
    if (m_deadlines.next() <= now && looks(lock, now)) {
        setTimer();
        return;
    }
    const comm::TimeNs until = std::exchange(m_look, {}).begun;
    while (const auto due = m_deadlines.takeDue(until)) {
        const std::uint32_t number = streamOf(due->handle);
        Stream& stream = *m_streams.find(number);
        stream.limited = Limited::eNOT;
        const auto limit = std::chrono::nanoseconds(due->when - stream.issued);
        endHere(lock, number,
                Response::createTimeoutResponse(std::chrono::duration_cast<std::chrono::milliseconds>(limit)));
    }
    m_timerDue = m_deadlines.next();
    setTimer();
}

/// Reads what the peer answered while this loop was busy, in batches. Answers whether nobody is judged yet: then it
/// goes on at `m_timerDue`.
bool ClientConnection::looks(Lock& lock, comm::TimeNs now)
{
    const bool isFirst = m_look.last == 0;
    m_look.took += isFirst ? 0 : std::min(now - m_look.last, MOST_COUNTED);
    m_look.stoodStill = isFirst ? now - m_timerDue >= LATE_TIMER : m_look.stoodStill;
    if (isFirst || m_look.isRead) {
        m_look.begun = now;
        m_look.isRead = false;
        lock.unlock();
        readAll([this, begun = now] { m_look.isRead = m_look.isRead || m_look.begun == begun; });
        lock.lock();
    }
    m_look.last = comm::now();
    m_look.took += m_look.last - now;
    if (!isOpen() || m_deadlines.next() > now || m_look.took >= LONGEST_LOOKING) {
        return false;
    }
    if (m_look.isRead && !looksAgain()) {
        return false;
    }
    m_timerDue = m_look.last + (m_look.isRead ? QUIET : LOOK_PAUSE);
    return true;
}

/// Once all has been read. Who stood still waits for what could not be sent meanwhile.
bool ClientConnection::looksAgain()
{
    if (m_look.isWaiting) {
        return m_look.begun - machine().input.lastReceived() < QUIET;
    }
    if (m_look.stoodStill) {
        KESA_TRACE(CHANNEL, 1, "[looksAgain] '%s': this process stood still, what was answered meanwhile counts",
                   peerName().c_str());
    }
    m_look.isWaiting = m_look.stoodStill;
    return m_look.isWaiting;
}

} // namespace kesa::commadapter
