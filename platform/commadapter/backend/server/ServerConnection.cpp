#include "backend/server/ServerConnection.h"

#include "backend/connection/channel.h"
#include "backend/server/Peer.h"

#include <utility>

namespace kesa::commadapter {

ServerConnection::ServerConnection(std::shared_ptr<IoLoop> loop, std::shared_ptr<ServiceTable> services,
                                   std::string scheme, std::weak_ptr<const transport::ITransport> transport)
    : Connection(std::move(loop), protocol::Role::eSERVER), m_services(std::move(services)),
      m_scheme(std::move(scheme)), m_transport(std::move(transport)), m_interests(*this, *m_services), m_held(*this),
      m_served(*this), m_liveness(*this), m_drainedTasks(*this)
{}

ServerConnection::~ServerConnection() = default;

void ServerConnection::begin(std::unique_ptr<transport::IStream> stream, const protocol::Hello& own)
{
    {
        const Lock lock(m_lock);
        open(std::move(stream), own);
        m_openedAt = comm::now();
        m_identity = Connection::peer();
        m_context.realm = own.realm; // who reaches a socket is of its realm
    }
    Connection::begin();
}

void ServerConnection::end()
{
    flush();
    lose("shutting down");
}

ConnectionFacts ServerConnection::facts() const
{
    ConnectionFacts facts;
    facts.isByPeer = true;
    facts.isConnected = m_context.peer != nullptr;
    facts.process = m_context.process;
    const Lock lock(m_lock);
    if (isOpen()) {
        addFacts(facts, m_openedAt);
        m_served.addFacts(facts);
    }
    return facts;
}

std::string ServerConnection::peerName() const
{
    if (m_context.process.empty()) {
        return isOpen() && peer().pid >= 0 ? "process " + std::to_string(peer().pid) : "unknown client";
    }
    return m_context.process + " (process " + std::to_string(m_context.pid) + ")";
}

std::string ServerConnection::endReason() const
{
    const Lock lock(m_lock);
    return m_endReason;
}

IPeer::Name ServerConnection::proveName()
{
    loop().onLoop(__func__);
    if (m_name) {
        return *m_name;
    }
    const auto transport = m_transport.lock();
    const RequestContext& peer = m_context;
    const transport::PeerIdentity listener =
        transport && !peer.process.empty() ? transport->whoListens(peer.process) : transport::PeerIdentity();
    IPeer::Name name;
    if (isLocal()) {
        name.proof = IPeer::Name::Proof::ePROVEN;
    } else if (listener.pid > 0 && peer.pid > 0) {
        const bool isPeer = listener.pid == peer.pid && (peer.start == 0 || listener.start == peer.start);
        name.proof = isPeer ? IPeer::Name::Proof::ePROVEN : IPeer::Name::Proof::eDISPROVEN;
        name.holder = listener.pid;
    }
    if (isLocal() || peer.process.empty() || listener.pid >= 0) { // else it is known later
        m_name = name;
    }
    return name;
}

// ---- what comes ---------------------------------------------------------------------------------------------------

void ServerConnection::onHello(const protocol::Hello& peer)
{
    const auto& identity = Connection::peer();
    m_context.instance = peer.instance;
    m_context.process = peer.process;
    m_context.transport = m_scheme;
    m_context.pid = identity.pid;
    m_context.uid = identity.uid;
    m_context.gid = identity.gid;
    m_context.start = identity.start;
    m_context.subject = identity.subject;
    m_context.peer = std::make_shared<Peer>(loop().shared_from_this(),
                                            std::static_pointer_cast<ServerConnection>(shared_from_this()));
    machine().input.setClientId(peer.process + ":" + std::to_string(identity.pid));
}

ServerConnection::Room ServerConnection::onLarge(std::uint32_t stream, std::size_t bytes)
{
    if (m_held.isWaiting(stream) || !m_served.isFree(stream)) {
        return Room::eNONE;
    }
    std::string why;
    return hasRoom(bytes, why) ? Room::eTHERE : waitForRoom(why);
}

void ServerConnection::onAttach(std::uint32_t target, std::string path)
{
    m_interests.attach(target, std::move(path));
}

void ServerConnection::onDetach(std::uint32_t target)
{
    m_held.cancelAll(target);
    m_interests.detach(target);
}

void ServerConnection::onRequest(std::uint32_t stream, std::uint32_t target, Request request, bool isPersistent,
                                 std::size_t cost)
{
    m_held.take(stream, target, std::move(request), isPersistent, cost);
}

void ServerConnection::serveHeld(comm::TimeNs until)
{
    m_interests.tellUntold();
    m_held.serve(until);
}

void ServerConnection::serve(std::uint32_t stream, std::uint32_t target, const Request& request, bool isPersistent,
                             comm::TimeNs came)
{
    m_served.serve(stream, m_interests.find(target), request, isPersistent, came);
}

void ServerConnection::sayCancelled(std::uint32_t stream)
{
    const Lock lock(m_lock);
    if (isOpen()) {
        output().error(stream, Response::createErrorResponse(503, "cancelled"));
        pushOut();
    }
}

void ServerConnection::giveRequestCredit(std::size_t bytes)
{
    const Lock lock(m_lock);
    if (isOpen()) {
        output().requestCredit(bytes);
        pushOut();
    }
}

void ServerConnection::onCancel(std::uint32_t stream)
{
    if (!m_held.cancel(stream)) {
        m_served.cancel(stream);
    }
}

void ServerConnection::onCredit(std::uint32_t stream, std::uint32_t bytes)
{
    m_served.credit(stream, bytes);
}

void ServerConnection::onSign(bool isPong)
{
    m_liveness.heard(isPong);
}

void ServerConnection::onQueueEmpty()
{
    m_served.queueAllLatest();
    m_drainedTasks.look();
}

void ServerConnection::onClosed(const std::string& reason)
{
    KESA_TRACE(CHANNEL, 2, "[connection] '%s' has ended: %s", peerName().c_str(), reason.c_str());
    {
        const Lock lock(m_lock);
        m_endReason = reason;
    }
    const auto self = std::static_pointer_cast<ServerConnection>(shared_from_this());
    m_held.end();
    m_interests.end();
    m_served.end();
    m_services->remove(self);
    m_liveness.end();
    m_drainedTasks.end();
}

bool ServerConnection::isAnswerOwed(comm::TimeNs, bool&)
{
    return false;
}

} // namespace kesa::commadapter
