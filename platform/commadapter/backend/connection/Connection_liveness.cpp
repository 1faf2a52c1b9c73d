// The heartbeat: notices a peer that is there and does nothing. Who owes something is asked by a ping once nothing has
// come from it for a heartbeat, and cut off if nothing comes after that either; so is who takes nothing of a queue that
// is over its bound. Before anybody is judged, what has come is read. That a peer's process has ended is told by the
// stream at once (`onPeerExited`); what a service asks about its client is in server/Liveness.

#include "backend/connection/Connection.h"

#include <utility>

namespace kesa::commadapter {

bool Connection::checkAlive(comm::TimeNs now, bool hasSlept)
{
    m_loop->onLoop(__func__);
    if (!m_isOpen) {
        return false;
    }
    Lock lock(m_lock);
    if (m_isBroken) {
        return false; // its end is on its way
    }
    if (hasSlept) {
        m_machine->output.restartDeadlines(now);
        progressed(now);
        return true;
    }
    if (takesNothing(now)) {
        lock.unlock();
        cutOff(TAKES_NOTHING);
        return false;
    }
    m_isFoundStuck = isStuck(now);
    const bool isJudgedStuck = m_isFoundStuck && boundedBytes() > 0;
    if ((isHeld() || isWaitingForRoom()) && !isJudgedStuck) {
        m_machine->output.restartDeadlines(now); // the ping, or its answer, stands behind what is not taken
    }
    if (now >= m_machine->output.nextDeadline()) {
        lock.unlock();
        readBatch(); // before a peer is judged silent
        if (!m_isOpen) {
            return false;
        }
        lock.lock();
        if (isReadingOn()) {
            m_machine->output.restartDeadlines(now); // it is this process that is late
        }
        std::string why;
        if (m_machine->output.expired(now, why)) {
            lock.unlock();
            cutOff(std::move(why));
            return false;
        }
    }
    bool isLate = false;
    const bool isOwed = isAnswerOwed(now, isLate);
    const bool isSilent = now - m_machine->input.lastReceived() >= m_loop->settings().heartbeat;
    if (isSilent && (isLate || isJudgedStuck)) {
        m_machine->output.probe(now);
        pushOut();
    }
    return isOwed || isOutputWaiting() || m_machine->output.nextDeadline() != comm::NEVER;
}

/// With the lock held. The stream is asked itself, in case that news of room are still on their way.
bool Connection::takesNothing(comm::TimeNs now)
{
    if (m_isBeyondBound && isOverBound(0) && isStuck(now)) {
        m_isBlocked = false;
        write();
        return isStuck(now);
    }
    return false;
}

/// For room in the socket, or a client's requests for credit.
bool Connection::isOutputWaiting() const
{
    return m_isBlocked || (m_role == protocol::Role::eCLIENT && m_machine->output.waitingBytes() > 0);
}

/// A queue that has not moved for the time of a heartbeat; one of a client only if nothing has come either, since a
/// server gives no credit to a client that takes no answers.
bool Connection::isStuck(comm::TimeNs now) const
{
    const bool isClient = m_role == protocol::Role::eCLIENT;
    return isOutputWaiting() && !(isClient && m_isBatch) && now - m_lastProgress >= m_loop->settings().heartbeat;
}

} // namespace kesa::commadapter
