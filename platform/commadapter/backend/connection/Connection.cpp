// The end: whoever finds it calls `lose`. Inside a batch that waits for the end of the batch, so that no callback pulls
// the machine from under its own feet. Where the peer has gone, what it had sent is handled first, in batches like all
// else: that is when most may be waiting. It is no more than was there when its end was found, as a child of the peer's
// process may write on. Until then nothing is written, and nobody is judged.

#include "backend/connection/Connection.h"

#include "backend/connection/channel.h"

#include <comm/wallClock.h>
#include <obr/visible.h>

#include <utility>

namespace kesa::commadapter {

namespace {

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
