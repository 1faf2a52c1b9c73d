// Input: the loop reads a batch, for no longer than a turn so that no peer keeps the loop to itself (`FairTurns`), and
// the machine calls the derived class for each message in it. The lock is not held meanwhile. What is left is handled
// in later turns; who has to know what the peer has sent by now waits for them, see `readAll`.
//
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
//
// The end: whoever finds it calls `lose`. Inside a batch that waits for the end of the batch, so that no callback pulls
// the machine from under its own feet. Where the peer has gone, what it had sent is handled first, in batches like all
// else: that is when most may be waiting. It is no more than was there when its end was found, as a child of the peer's
// process may write on. Until then nothing is written, and nobody is judged.

#include "backend/connection/Connection.h"

#include "backend/connection/channel.h"

#include <comm/wallClock.h>
#include <obr/visible.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace kesa::commadapter {

namespace {

/// In a batch that nobody waits for.
constexpr unsigned MOST_READS = 16;
constexpr std::size_t GATHERED_BYTES = 64U << 10U;
constexpr std::size_t PARTS_PER_WRITE = 64;
constexpr comm::TimeNs BURST = comm::MILLISECOND / 200;
/// The bound of the process, in this many parts, is what a connection may have queued when the whole is used up.
constexpr std::size_t SHARES = 1024;
/// The clients of a user that is not trusted may have one of so many parts of it.
constexpr std::size_t USERS = 4;

protocol::Limits limitsOf(const CommSettings& settings)
{
    protocol::Limits limits;
    limits.maxMessageBytes = settings.maxMessageBytes;
    limits.heartbeat = settings.heartbeat;
    limits.streamWindow = settings.streamWindow;
    return limits;
}

} // namespace

Connection::Connection(std::shared_ptr<IoLoop> loop, protocol::Role role) : m_loop(std::move(loop)), m_role(role) {}

Connection::~Connection()
{
    recount({});
}

void Connection::open(std::unique_ptr<transport::IStream> stream, const protocol::Hello& own)
{
    const comm::TimeNs now = comm::now();
    auto& listener = static_cast<protocol::IMachineListener&>(*this);
    m_machine = std::make_unique<protocol::Machine>(m_role, own, limitsOf(m_loop->settings()), listener, now);
    m_stream = std::move(stream);
    m_peerPid = m_stream->peer().pid;
    m_queuedForUser = m_loop->accounts().queuedFor(m_stream->peer().uid);
    m_isOpen = true;
    ++m_opened;
    m_isBatch = m_isBlocked = m_isBroken = m_isBeyondBound = false;
    m_isHeld = false;
    progressed(now);
    m_isReading = true;
    m_lostReason.reset();
    m_goodbye.clear();
    m_bytesRead = 0;
}

void Connection::begin()
{
    m_loop->add(*this);
    m_stream->start(*this);
    flush();
    m_loop->expectSomething(); // the peer's hello
}

void Connection::lose(std::string reason)
{
    m_loop->onLoop(__func__);
    if (!m_isOpen) {
        return;
    }
    if (m_isReceiving) {
        if (!m_lostReason) {
            m_lostReason = std::move(reason);
        }
        return;
    }
    const auto keep = shared_from_this();
    m_loop->remove(*this);
    Lock lock(m_lock);
    m_isOpen = false;
    recount({});
    m_loop->destroyAtTurnEnd(std::exchange(m_stream, nullptr), std::exchange(m_machine, nullptr));
    lock.unlock();
    countStanding(0);
    countKept(0);
    const auto dropped = std::exchange(m_awaited, {});
    onClosed(reason);
}

void Connection::traceCutOff(const std::string& reason) const
{
    const bool isStranger = reason.rfind(protocol::NO_COMMON_VERSION, 0) == 0;
    if (const auto end = isStranger ? m_loop->strangers().pass(peerName(), comm::now()) : std::string()) {
        KESA_TRACE(CHANNEL, 3, "[connection] '%s' is cut off: %s%s", peerName().c_str(), reason.c_str(), end->c_str());
    }
}

void Connection::cutOff(std::string reason)
{
    m_loop->onLoop(__func__);
    if (m_isOpen && !m_lostReason) {
        if (m_role == protocol::Role::eSERVER) {
            const PeerLimit limit(m_loop->cutOffLines(), m_peerPid);
            traceCutOff(reason);
            sayGoodbye(reason);
        }
        lose(std::move(reason));
    }
}

/// As far as there is room for it now: nobody waits for a peer that is cut off.
void Connection::sayGoodbye(const std::string& reason)
{
    const Lock lock(m_lock);
    m_machine->output.goodbye(reason);
    write();
}

void Connection::onGoodbye(std::string reason)
{
    constexpr std::size_t MOST = 400;
    m_goodbye = obr::visible(reason.size() > MOST ? reason.substr(0, MOST) + "..." : reason);
}

// ---- input --------------------------------------------------------------------------------------------------------

void Connection::onReadable()
{
    const IoLoop::Turn turn(*m_loop);
    const auto keep = shared_from_this();
    m_loop->turns().ready(*this);
}

void Connection::readAll(std::function<void()> then)
{
    if (!m_isOpen) {
        return;
    }
    m_awaited.push_back({m_bytesRead + m_stream->unread(), std::move(then)});
    if (!m_isToReadOn) {
        readBatch(); // inside a batch: its end does it
    }
}

void Connection::readBatch(comm::TimeNs until)
{
    if (!m_isOpen || m_isReceiving) {
        return;
    }
    const PeerLimit limit = peerLimit();
    auto& input = m_machine->input;
    const std::uint64_t pongs = input.pongs();
    const std::uint64_t readBefore = m_bytesRead;
    {
        const Lock lock(m_lock);
        m_isBatch = true;
        holdIfOver(); // others may have brought the process over its bound
    }
    m_isReceiving = true;
    bool isEmpty = false;
    try {
        isEmpty = receive(until);
    } catch (const std::bad_alloc&) { // handlers' exceptions do not come here
        cutOff("there is no memory for what it sends");
    }
    m_isReceiving = false;
    input.giveBufferBack();
    countKept(keptBytes());
    const bool hasRead = m_bytesRead != readBefore;
    const bool isPong = input.pongs() != pongs;
    finishBatch(hasRead);
    if (m_isOpen) {
        endBatch(hasRead, isPong, isEmpty);
    }
}

/// Answers whether the stream was found empty.
bool Connection::receive(comm::TimeNs until)
{
    auto& input = m_machine->input;
    m_wasCutShort = true;
    m_isFull = false;
    serveHeld(until);
    if (isHeldLeft()) {
        return false;
    }
    if (input.hasUnhandled() && input.readOn(until)) {
        cutOff(input.reason());
    }
    unsigned reads = 0;
    while (!m_lostReason && !isInputStopped() && !isKeptEnough()) {
        const auto into = input.buffer();
        std::size_t size = 0;
        const auto result = m_stream->read(into, size);
        if (result == transport::IStream::Result::eENDED && heldBytes() > 0) {
            breakOff(); // the end is found again once these have been served
            return false;
        }
        if (result == transport::IStream::Result::eENDED) {
            m_lostReason = !m_goodbye.empty()           ? "the peer closed the connection: " + m_goodbye
                           : m_stream->reason().empty() ? "the peer closed the connection"
                                                        : m_stream->reason();
        }
        if (result != transport::IStream::Result::eDONE || size == 0) {
            m_wasCutShort = false;
            return true;
        }
        m_bytesRead += size;
        if (input.received(size, comm::now(), until)) {
            cutOff(input.reason());
            break;
        }
        const bool isAll = size < into.size();
        m_wasCutShort = !isAll || input.isPaused();
        const bool isEnough = isAll || ++reads == MOST_READS; // the stream comes again for the rest
        if ((isEnough && m_awaited.empty()) || comm::now() >= until) {
            break;
        }
    }
    return false;
}

/// After a batch that has left the connection open. What its bytes tell comes before what was to come after them.
void Connection::endBatch(bool hasRead, bool isPong, bool isEmpty)
{
    updateReading();
    const auto left = std::find_if_not(m_awaited.begin(), m_awaited.end(),
                                       [&](const Awaited& awaited) { return isHandled(awaited, isEmpty); });
    const std::vector<Awaited> come(std::make_move_iterator(m_awaited.begin()), std::make_move_iterator(left));
    m_awaited.erase(m_awaited.begin(), left);
    readOnLater();
    if (hasRead || isPong) {
        onSign(isPong);
    }
    for (const Awaited& awaited : come) {
        if (m_isOpen && awaited.then) {
            awaited.then();
        }
    }
}

/// At the end of a batch. A peer that sends on and on never leaves the stream empty; one that waits for room, or that
/// takes no answers, is not waited for.
bool Connection::isHandled(const Awaited& awaited, bool isEmpty) const
{
    const auto& input = m_machine->input;
    const bool isRead = (isEmpty && !input.isPaused()) || m_bytesRead - input.unhandled() > awaited.end;
    return isWaitingForRoom() || (isRead && !isHeldLeft());
}

/// What the time did not suffice for: after what other connections have for this turn of the loop.
void Connection::readOnLater()
{
    const bool isLeft = m_machine->input.isPaused() || isHeldLeft() || !m_awaited.empty();
    if (isLeft) {
        m_isToReadOn = true;
        m_loop->turns().again(*this);
    }
}

/// Before anything further is read from one that is held.
bool Connection::isKeptEnough()
{
    if (!isHeld()) {
        return false;
    }
    countKept(keptBytes());
    const std::string why = m_loop->accounts().whyNoMore(UserAccounts::Kind::eUNFINISHED, m_stream->peer().uid, 1);
    m_isFull = !why.empty();
    if (m_isFull) {
        static_cast<void>(waitForRoom(why));
    }
    return m_isFull;
}

/// For a message that begins, or, as it is held, for anything.
bool Connection::isWaitingForRoom() const noexcept
{
    return m_machine->input.isWaiting() || m_isFull;
}

bool Connection::isInputStopped() const noexcept
{
    return m_machine->input.isPaused() || isWaitingForRoom();
}

std::size_t Connection::keptBytes() const
{
    return m_machine->input.unfinishedBytes() + heldBytes();
}

void Connection::countKept(std::size_t bytes)
{
    const std::size_t before = std::exchange(m_kept, bytes);
    if (before == 0 && bytes > 0) {
        m_uid = m_stream->peer().uid;
    }
    m_loop->accounts().change(UserAccounts::Kind::eUNFINISHED, m_uid, before, bytes);
    if (bytes < before) {
        m_loop->roomFreed();
    }
}

void Connection::countStanding(std::size_t bytes)
{
    m_loop->accounts().change(UserAccounts::Kind::eSTANDING, m_uid, std::exchange(m_standing, bytes), bytes);
}

/// The last one that would wait while all others do may begin: what they have begun ends only behind what waits.
bool Connection::hasRoom(std::size_t bytes, std::string& why)
{
    countStanding(0);
    const std::size_t kept = keptBytes();
    countKept(kept); // the batch may have ended some
    m_uid = kept == 0 ? m_stream->peer().uid : m_uid;
    why = m_loop->accounts().whyNoMore(UserAccounts::Kind::eUNFINISHED, m_uid, bytes);
    const bool hasRoom = why.empty() || m_loop->accounts().isStuck(m_uid, kept);
    hasRoom ? countKept(kept + bytes) : countStanding(kept);
    return hasRoom;
}

Connection::Room Connection::waitForRoom(const std::string& why)
{
    KESA_TRACE(CHANNEL, 2, "[hold] what '%s' sends waits: %s", peerName().c_str(), why.c_str());
    m_loop->waitForRoom(*this);
    return Room::eLATER;
}

void Connection::finishBatch(bool hasRead)
{
    {
        const Lock lock(m_lock);
        m_isBatch = false;
        m_lastHeard = m_machine->input.lastReceived();
        if (hasRead && isOutputWaiting() && m_role == protocol::Role::eCLIENT) {
            progressed(comm::now());
        }
        for (unsigned owed = m_machine->input.takePongsOwed(); owed > 0; --owed) {
            m_machine->output.pong();
        }
        write();
    }
    if (m_lostReason) {
        lose(*std::exchange(m_lostReason, std::nullopt));
    }
}

void Connection::onPeerExited()
{
    const IoLoop::Turn turn(*m_loop);
    const auto keep = shared_from_this();
    if (m_isOpen && (!m_isReading || isInputStopped() || heldBytes() > 0)) {
        endAfterInput(PROCESS_ENDED);
    } else {
        lose(PROCESS_ENDED);
    }
}

// ---- output -------------------------------------------------------------------------------------------------------

void Connection::pushOut(Haste haste)
{
    countQueued();
    if (m_machine->output.queuedBytes() < GATHERED_BYTES) {
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

void Connection::updateReading()
{
    const bool isWanted = !isWaitingForRoom();
    if (std::exchange(m_isReading, isWanted) != isWanted) {
        m_stream->setReading(isWanted);
    }
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

void Connection::addFacts(ConnectionFacts& facts, comm::TimeNs openedAt) const
{
    m_loop->onLoop(__func__);
    const transport::PeerIdentity& identity = m_stream->peer();
    facts.pid = identity.pid;
    facts.uid = identity.uid;
    facts.since = comm::wallClock() - (comm::now() - openedAt);
    facts.queuedBytes = m_machine->output.queuedBytes() + m_machine->output.waitingBytes();
    facts.unreadBytes = m_stream->unread();
    facts.isHeld = isHeld();
}

void Connection::progressed(comm::TimeNs now) noexcept
{
    m_lastProgress = now;
    m_isFoundStuck = false;
}

} // namespace kesa::commadapter
