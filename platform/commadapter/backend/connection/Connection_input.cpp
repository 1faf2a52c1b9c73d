// Input: the loop reads a batch, for no longer than a turn so that no peer keeps the loop to itself (`FairTurns`), and
// the machine calls the derived class for each message in it. The lock is not held meanwhile. What is left is handled
// in later turns; who has to know what the peer has sent by now waits for them, see `readAll`.

#include "backend/connection/Connection.h"

#include "backend/connection/channel.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

namespace kesa::commadapter {

namespace {

/// In a batch that nobody waits for.
constexpr unsigned MOST_READS = 16;

} // namespace

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

/// `begin` is now: to look at the clock takes as long as to handle a small message.
void Connection::readBatch(comm::TimeNs begin, comm::TimeNs slice)
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
        isEmpty = receive(begin, begin + slice);
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
bool Connection::receive(comm::TimeNs begin, comm::TimeNs until)
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
        if (input.received(size, reads == 0 ? begin : comm::now(), until)) {
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
    const std::vector<Awaited> come = m_awaited.empty() ? std::vector<Awaited>() : takeHandled(isEmpty);
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

/// At the end of a batch: what is awaited no longer.
std::vector<Connection::Awaited> Connection::takeHandled(bool isEmpty)
{
    const auto left = std::find_if_not(m_awaited.begin(), m_awaited.end(),
                                       [&](const Awaited& awaited) { return isHandled(awaited, isEmpty); });
    std::vector<Awaited> handled(std::make_move_iterator(m_awaited.begin()), std::make_move_iterator(left));
    m_awaited.erase(m_awaited.begin(), left);
    return handled;
}

/// A peer that sends on and on never leaves the stream empty; one that waits for room, or that
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
        m_batchWritten = m_lastProgress;
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

void Connection::updateReading()
{
    const bool isWanted = !isWaitingForRoom();
    if (std::exchange(m_isReading, isWanted) != isWanted) {
        m_stream->setReading(isWanted);
    }
}

} // namespace kesa::commadapter
