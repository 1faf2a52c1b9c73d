// Time limits of requests. Each connection has one timer, for a time that no deadline is before. It is set for another
// time when an earlier deadline comes, which is seldom, and when it has run: in between requests come and go without
// anybody being woken. What runs out is cancelled like any other request, so nothing comes after its 504.
//
// A loop that stood still, as its process did, finds answers that were given in time, and not all at once: what the
// stream had no room for comes as the peer hears that there is. So nobody is judged until it has been quiet for a
// while, or for the looks that a peer which sends on and on is given.

#include "backend/ClientConnection.h"

#include "backend/channel.h"

#include <chrono>

namespace kesa::commadapter {

namespace {

/// A timer that comes so late tells that the loop stood still.
constexpr comm::TimeNs LATE = 10 * comm::MILLISECOND;
constexpr comm::TimeNs QUIET = 50 * comm::MILLISECOND;
/// At `QUIET` each: a second, whatever the limits are.
constexpr unsigned MOST_LOOKS = 20;

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
    const comm::TimeNs now = comm::now();
    Lock lock(m_lock);
    if (m_deadlines.next() <= now) {
        const bool stoodStill = now - m_timerDue >= LATE;
        lock.unlock();
        readBatch(true); // what the peer answered while this loop was busy counts
        lock.lock();
        if (looksAgain(now, stoodStill)) {
            m_timerDue = now + QUIET;
            setTimer();
            return;
        }
    }
    m_looks = 0;
    while (const auto due = m_deadlines.takeDue(now)) {
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

/// With the lock held, after reading. The looks are counted, not timed: the process may stand still again meanwhile.
bool ClientConnection::looksAgain(comm::TimeNs now, bool stoodStill)
{
    if (!isOpen() || m_deadlines.next() > now || m_looks == MOST_LOOKS) {
        return false;
    }
    if (m_looks == 0 ? !stoodStill : now - machine().lastReceived() >= QUIET) {
        return false;
    }
    if (++m_looks == 1) {
        KESA_TRACE(CHANNEL, 1, "[looksAgain] '%s': this process stood still, what was answered meanwhile counts",
                   peerName().c_str());
    }
    return true;
}

} // namespace kesa::commadapter
