// Output: a command is encoded into the machine under the lock. Issued on another thread it is written at once by that
// thread, unless the socket is full or a batch is being handled; issued on the loop it is gathered, and leaves in one
// call at the end of the batch or turn, or as soon as GATHERED_BYTES have come together. Values of a stream that
// another thread issues within BURST after the last write are gathered, too, and the loop is woken for them once: a
// thread that pushes without a pause would otherwise wake the peer for each. Requests and ends never wait like that:
// somebody may be blocked until they arrive.
//
// Holding: a server whose answers are not taken hands no further request of that client to a service, since each is an
// answer to be queued. It begins when the queue is over its bound and the stream takes nothing, and ends at half of
// that bound; so there is always a write that is waited for meanwhile, which also is what finds the peer's end. What
// has come by then waits here (`HeldRequests`), and is no more than a window of requests; further ones wait in the
// client, which gets no credit for them. Both sides read at all times, so two processes that ask each other cannot wait
// for each other, and a cancel, a pong and credit for values are never behind a request. Only who is held while its
// user has no room left for what waits is not read.

#include "backend/connection/Connection.h"

#include "backend/connection/channel.h"

#include <algorithm>
#include <array>
#include <span>
#include <string>

namespace kesa::commadapter {

namespace {

constexpr std::size_t GATHERED_BYTES = 64U << 10U;
constexpr std::size_t PARTS_PER_WRITE = 64;
constexpr comm::TimeNs BURST = comm::MILLISECOND / 200;
/// The bound of the process, in this many parts, is what a connection may have queued when the whole is used up.
constexpr std::size_t SHARES = 1024;
/// The clients of a user that is not trusted may have one of so many parts of it.
constexpr std::size_t USERS = 4;

} // namespace

void Connection::pushOut(Haste haste)
{
    const auto& output = m_machine->output;
    if (m_isBlocked || output.persistentBytes() != m_counted.persistent ||
        output.queuedBytes() + output.waitingBytes() >= GATHERED_BYTES) {
        countQueued(); // otherwise `write`, which follows soon, counts what it leaves
    }
    if (output.queuedBytes() < GATHERED_BYTES) {
        if (m_isBatch) {
            return;
        }
        if (m_loop->isCurrent()) {
            if (!m_isGathered) {
                m_isGathered = true;
                m_loop->flushAtTurnEnd(*this);
            }
            return;
        }
        if (haste == Haste::eMAY_GATHER && isBurst()) {
            if (!m_isGathered) {
                m_isGathered = true;
                m_loop->post([self = shared_from_this()] { self->flush(); });
            }
            return;
        }
    }
    write();
    holdIfOver();
}

bool Connection::isBurst() const
{
    return m_isGathered || comm::now() - m_lastProgress < BURST;
}

void Connection::flush()
{
    const Lock lock(m_lock);
    m_isGathered = false;
    write();
}

void Connection::onWritable()
{
    const IoLoop::Turn turn(*m_loop);
    const auto keep = shared_from_this();
    const Lock lock(m_lock);
    m_isBlocked = false;
    write();
}

/// With the lock held. The stream is written to by one thread at a time, and closed under the same lock: nobody writes
/// to a descriptor that is somebody else's by now.
void Connection::write()
{
    if (!m_isOpen || m_isBroken || m_isBlocked) {
        return;
    }
    std::array<iovec, PARTS_PER_WRITE> parts;
    while (true) {
        std::size_t count = m_machine->output.gather(parts);
        if (count == 0) {
            onQueueEmpty();
            count = m_machine->output.gather(parts);
        }
        if (count == 0) {
            m_isBeyondBound = m_isBeyondBound && m_machine->output.waitingBytes() > 0;
            break;
        }
        std::size_t size = 0;
        const auto result = m_stream->write(std::span<const iovec>(parts.data(), count), size);
        if (result == transport::IStream::Result::eDONE) {
            progressed(comm::now());
            m_machine->output.sent(size, m_lastProgress);
            continue;
        }
        if (result == transport::IStream::Result::eENDED) {
            m_isBroken = true;
            writeFailed();
            break;
        }
        m_isBlocked = true;
        m_loop->expectSomething(); // that the queue moves
        wantWrite();
        break;
    }
    countQueued();
    endHold();
}

/// What may be queued on a connection before it is held. Once the process has too much queued, it is little for each:
/// so those that have much are held.
std::size_t Connection::holdBound() const
{
    const CommSettings& settings = m_loop->settings();
    const Shared together = shared(&QueuedBytes::Amount::all);
    return together.queued > together.bound ? std::min(settings.sendQueueBytes, settings.processQueueBytes / SHARES)
                                            : settings.sendQueueBytes;
}

/// With the lock held, after writing what could be written.
void Connection::holdIfOver()
{
    if (m_role == protocol::Role::eSERVER && m_isBlocked && !m_isBroken && !isHeld() &&
        m_machine->output.queuedBytes() >= holdBound()) {
        m_isHeld = true;
        KESA_TRACE(CHANNEL, 1, "[hold] '%s' does not take its answers: %zu bytes are queued, its requests wait",
                   peerName().c_str(), m_machine->output.queuedBytes());
    }
}

/// With the lock held, any thread; the loop then goes on with what has waited.
void Connection::endHold()
{
    if (!isHeld() || (!m_isBroken && m_machine->output.queuedBytes() > holdBound() / 2)) {
        return;
    }
    m_isHeld = false;
    KESA_TRACE(CHANNEL, 1, "[endHold] '%s' is served again", peerName().c_str());
    m_loop->post([self = shared_from_this(), opened = m_opened] {
        if (self->m_isOpen && self->m_opened == opened) {
            self->readBatch();
        }
    });
}

void Connection::wantWrite()
{
    if (m_loop->isCurrent()) {
        m_stream->wantWrite();
        return;
    }
    m_loop->post([self = shared_from_this(), opened = m_opened] {
        if (self->m_isOpen && self->m_opened == opened) {
            self->m_stream->wantWrite();
        }
    });
}

void Connection::writeFailed()
{
    m_loop->post([self = shared_from_this(), opened = m_opened] {
        if (self->m_isOpen && self->m_opened == opened) {
            const std::string reason = self->m_stream->reason();
            self->endAfterInput(reason.empty() ? "the peer closed the connection" : reason);
        }
    });
}

/// Nobody takes answers any more: nothing is held for them either.
void Connection::breakOff()
{
    const Lock lock(m_lock);
    m_isBroken = true;
    m_isHeld = false;
}

void Connection::endAfterInput(std::string reason)
{
    breakOff();
    readAll([this, reason = std::move(reason)] { lose(reason); });
}

void Connection::countQueued()
{
    const auto& output = m_machine->output;
    recount({output.queuedBytes() + output.waitingBytes(), output.persistentBytes()});
}

void Connection::recount(const QueuedBytes::Amount& queued)
{
    m_loop->queued().change(m_counted, queued);
    if (m_queuedForUser) {
        m_queuedForUser->change(m_counted, queued);
    }
    m_counted = queued;
}

std::size_t Connection::boundedBytes() const
{
    const auto& output = m_machine->output;
    return m_role == protocol::Role::eCLIENT ? output.queuedBytes() + output.waitingBytes() : output.persistentBytes();
}

bool Connection::isOverBound(std::size_t moreBytes) const
{
    const std::size_t queued = boundedBytes();
    return queued > 0 && queued + moreBytes > m_loop->settings().sendQueueBytes;
}

Connection::Shared Connection::shared(std::size_t QueuedBytes::Amount::*which) const
{
    const Shared all{m_loop->queued().now().*which, m_loop->settings().processQueueBytes, false};
    const Shared user{m_queuedForUser ? m_queuedForUser->now().*which : 0, all.bound / USERS, true};
    return user.queued > all.queued / USERS ? user : all;
}

bool Connection::isSharedOverBound(std::size_t moreBytes) const
{
    if (m_machine->output.persistentBytes() <= m_loop->settings().processQueueBytes / SHARES) {
        return false;
    }
    const Shared together = shared(&QueuedBytes::Amount::persistent);
    return together.queued + moreBytes > together.bound;
}

} // namespace kesa::commadapter
