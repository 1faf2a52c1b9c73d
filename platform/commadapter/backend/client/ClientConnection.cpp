// Client objects and the connection they share. Their requests are in ClientConnection_requests.cpp, the time limits of
// these in ClientConnection_limits.cpp.
//
// Calls. The loop calls one handler or listener at a time, without the lock. `cancel` and `release` take away what
// would be called next and then wait while exactly that call runs, see `CallUnderWay`. A handler is out of the table
// while it runs, so nothing that happens to its stream meanwhile destroys it; when it was cancelled, its call does so
// afterwards.
//
// Order. When a path or the connection goes, first nothing can be sent any more, then each open request ends with 503,
// then the listener hears of it. Before a listener hears `connected`, requests that failed meanwhile are told so. What
// the server may still answer to requests ended here is cancelled; their numbers stay taken until it ends them.

#include "backend/client/ClientConnection.h"

#include "backend/connection/channel.h"

#include <obr/GlobalErrorHandler.h>

#include <algorithm>

namespace kesa::commadapter {

namespace {

/// At most, of a peer that is well; only then its silence accuses it.
constexpr comm::TimeNs HELLO_TAKES = comm::SECOND;
constexpr comm::TimeNs ATTACHING_TAKES = 100 * comm::MILLISECOND;

Response unavailable(std::string_view text)
{
    return Response::createErrorResponse(503, text);
}

} // namespace

ClientConnection::ClientConnection(const std::shared_ptr<IoLoop>& loop, Destination destination, MakeHello makeHello,
                                   OpenLocal openLocal, Unused unused)
    : Connection(loop, protocol::Role::eCLIENT), m_makeHello(std::move(makeHello)), m_unused(std::move(unused)),
      m_connector(std::make_shared<Connector>(loop, std::move(destination), std::move(openLocal)))
{}

ClientConnection::~ClientConnection() = default;

std::string ClientConnection::peerName() const
{
    return m_connector->destination().endpoint.toString();
}

ConnectionFacts ClientConnection::facts() const
{
    ConnectionFacts facts;
    facts.process = m_connector->destination().endpoint.process;
    const Lock lock(m_lock);
    facts.isConnected = isOpen() && m_isGreeted;
    if (isOpen()) {
        addFacts(facts, m_openedAt);
        facts.openRequests = m_streams.countTaken();
    }
    if (!facts.isConnected) {
        facts.reason = m_connector->lastReason();
        facts.reason = facts.reason.empty() ? "it has not said hello yet" : facts.reason;
    }
    return facts;
}

std::string ClientConnection::obstacle(const ClientState& client) const
{
    std::string why;
    transport::PeerIdentity peer;
    {
        const Lock lock(m_lock);
        why = isConnected(client) ? std::string() : whyNot(client);
        if (!isOpen() || client.listener == nullptr) {
            return why;
        }
        peer = m_peer;
    }
    const Destination& destination = m_connector->destination();
    const std::string pid = std::to_string(peer.pid);
    return destination.transport->isStopped(peer) ? '"' + destination.endpoint.process + "\" is stopped: process " +
                                                        pid + "; kill -CONT " + pid + " lets it go on"
                                                  : why;
}

/// With the lock held; of one that is not connected.
std::string ClientConnection::whyNot(const ClientState& client) const
{
    if (m_isStopped) {
        return SHUTTING_DOWN;
    }
    if (client.listener == nullptr) {
        return "the client object was released, as its subscription was disposed or its service has gone";
    }
    const Destination& destination = m_connector->destination();
    const std::string peer = '"' + destination.endpoint.process + '"';
    const comm::TimeNs now = comm::now();
    if (isOpen() && m_isGreeted && now - client.begun >= ATTACHING_TAKES) {
        return lastHeard() > client.begun ? peer + " answers, and does not provide \"" + client.path + '"'
                                          : peer + " has said nothing since it was asked for \"" + client.path +
                                                "\": it does not provide that, or is stopped or blocked";
    }
    if (isOpen() && !m_isGreeted && now - m_openedAt >= HELLO_TAKES) {
        return peer + " takes the connection and has said nothing yet, like one that is stopped or blocked";
    }
    std::string reason = isOpen() ? std::string() : m_connector->explainedReason();
    if (reason.empty()) {
        const comm::TimeNs begun = isOpen() ? std::max(m_openedAt, client.begun) : client.begun;
        return "no connection yet (begun " + std::to_string((now - begun) / comm::MILLISECOND) + " ms ago)";
    }
    if (const std::string source = destination.transport->runDirectorySource(); !source.empty()) {
        reason += " (run directory by " + source + ')';
    }
    const std::string who = isOpen() ? std::string() : destination.transport->whoCannotBeFound(destination.endpoint);
    return who.empty() ? reason : reason + "; " + who;
}

// ---- client objects -----------------------------------------------------------------------------------------------

void ClientConnection::start(const std::shared_ptr<ClientState>& client)
{
    loop().post([self = std::static_pointer_cast<ClientConnection>(shared_from_this()), client] {
        Lock lock(self->m_lock);
        if (self->m_isStopped || client->listener == nullptr || std::exchange(client->isStarted, true)) {
            return;
        }
        self->m_clients.push_back(client);
        if (self->isOpen()) {
            self->attach(client);
            self->pushOut();
            return;
        }
        lock.unlock();
        self->m_connector->start([weak = self->weak_from_this()](std::unique_ptr<transport::IStream> stream) {
            if (const auto held = weak.lock()) {
                static_cast<ClientConnection&>(*held).connected(std::move(stream));
            }
        });
    });
}

void ClientConnection::release(const std::shared_ptr<ClientState>& client, bool serviceRemoved)
{
    Lock lock(m_lock);
    if (client->listener == nullptr) {
        return; // twice
    }
    client->listener = nullptr;
    client->isAttached = false;
    m_listenerCall.waitForEnd(lock, client.get(), loop().isCurrent(), client->path);
    lock.unlock();
    loop().post([self = std::static_pointer_cast<ClientConnection>(shared_from_this()), client, serviceRemoved] {
        self->retire(client, serviceRemoved);
    });
}

void ClientConnection::retire(const std::shared_ptr<ClientState>& client, bool serviceRemoved)
{
    Lock lock(m_lock);
    endStreams(lock, *client, unavailable("the client object was released"));
    if (isOpen() && client->target != 0) {
        machine().output.detached(client->target);
        pushOut();
    }
    lock.unlock();
    m_targets.erase(client->target);
    client->target = 0;
    std::erase(m_clients, client);
    m_unused(*this, serviceRemoved);
}

void ClientConnection::setConnected(Lock& lock, ClientState& client)
{
    if (client.listener == nullptr || client.isAttached) {
        return;
    }
    if (client.open.first != 0) {
        obr::GlobalErrorHandler::doAssert(false, "client.open.first == 0", __FILE__, __LINE__, __func__,
                                          "a request is open across connections");
    }
    client.isAttached = true; // first: what a handler told here issues again is sent, and cannot fail without end
    tellFailed(lock, m_failures.size());
    tellListener(lock, client, &IClientConnectionListener::clientConnected);
}

void ClientConnection::setDisconnected(Lock& lock, ClientState& client, const Response& error)
{
    const bool wasAttached = std::exchange(client.isAttached, false);
    endStreams(lock, client, error);
    if (wasAttached) {
        tellListener(lock, client, &IClientConnectionListener::clientDisconnected);
    }
}

void ClientConnection::tellListener(Lock& lock, ClientState& client, void (IClientConnectionListener::*call)())
{
    IClientConnectionListener* const listener = client.listener;
    if (listener == nullptr) {
        return;
    }
    const decltype(m_listenerCall)::Scope scope(m_listenerCall, &client);
    lock.unlock();
    loop().callOut([&] { (listener->*call)(); },
                   [&client] { return "what has been told that '" + client.path + "' comes or goes"; });
    lock.lock();
}

// ---- connection ---------------------------------------------------------------------------------------------------

void ClientConnection::connected(std::unique_ptr<transport::IStream> stream)
{
    Lock lock(m_lock);
    m_peer = stream->peer();
    loop().accounts().change(UserAccounts::Kind::eCONNECTIONS, m_peer.uid, 0, 1);
    open(std::move(stream), m_makeHello());
    m_isGreeted = false;
    m_openedAt = comm::now();
    for (const auto& client : m_clients) {
        attach(client);
    }
    lock.unlock();
    begin();
}

/// With the lock held. Numbers of targets are never used again on a connection: news about an old one may still come.
void ClientConnection::attach(const std::shared_ptr<ClientState>& client)
{
    client->target = ++m_lastTarget;
    // The path was checked when the locator was read; one that is refused all the same is provided by nobody.
    static_cast<void>(machine().output.attach(client->target, client->path));
    m_targets.emplace(client->target, client);
}

std::shared_ptr<ClientState> ClientConnection::clientOf(std::uint32_t target) const
{
    const auto found = m_targets.find(target);
    return found == m_targets.end() ? nullptr : found->second;
}

void ClientConnection::onHello(const protocol::Hello& peer)
{
    if (std::string other = m_connector->destination().complaintAbout(peer.process, Connection::peer().pid);
        !other.empty()) {
        cutOff(std::move(other)); // not greeted: what follows its hello counts for nothing
        return;
    }
    {
        const Lock lock(m_lock);
        m_isGreeted = true;
    }
    KESA_TRACE(CHANNEL, 2, "[connect] '%s' answers as '%s'", peerName().c_str(), peer.process.c_str());
}

void ClientConnection::onAttached(std::uint32_t target)
{
    if (const auto client = m_isGreeted ? clientOf(target) : nullptr) {
        m_connector->useful();
        Lock lock(m_lock);
        setConnected(lock, *client);
    }
}

void ClientConnection::onDetached(std::uint32_t target)
{
    if (const auto client = clientOf(target)) {
        Lock lock(m_lock);
        setDisconnected(lock, *client, unavailable("the service was withdrawn"));
    }
}

void ClientConnection::onClosed(const std::string& reason)
{
    const auto error = unavailable("the connection was lost: " + reason);
    std::vector<std::shared_ptr<ClientState>> wereConnected;
    loop().accounts().change(UserAccounts::Kind::eCONNECTIONS, m_peer.uid, 1, 0);
    m_targets.clear();
    m_look = {};
    Lock lock(m_lock);
    for (const auto& client : m_clients) {
        client->target = 0;
        if (std::exchange(client->isAttached, false)) {
            wereConnected.push_back(client);
        }
    }
    for (const auto& client : m_clients) {
        endStreams(lock, *client, error);
    }
    for (const auto& client : wereConnected) {
        tellListener(lock, *client, &IClientConnectionListener::clientDisconnected);
    }
    for (std::uint32_t number = 1; number <= m_streams.highest(); ++number) {
        if (m_streams.find(number) != nullptr) {
            m_streams.giveBack(number); // cancelled ones
        }
    }
    m_endsOwed = 0;
    m_noneFreeSince = comm::NEVER;
    lock.unlock();
    if (m_clients.empty()) {
        m_connector->stop(); // it only lingered
    } else {
        m_connector->lost(reason, m_isGreeted);
    }
}

bool ClientConnection::isAnswerOwed(comm::TimeNs now, bool& isLate)
{
    if (m_openSingles == 0) {
        return false;
    }
    for (std::uint32_t number = 1; number <= m_streams.highest() && !isLate; ++number) {
        const Stream* const stream = m_streams.find(number);
        isLate = stream != nullptr && stream->isOpen && stream->isSingle &&
                 now - stream->issued >= loop().settings().heartbeat;
    }
    return true;
}

// ---- ends ---------------------------------------------------------------------------------------------------------

void ClientConnection::disconnect()
{
    m_connector->stop();
    loop().reactor()->cancelTimer(m_timer);
    lose("no longer used");
}

void ClientConnection::stop()
{
    m_connector->stop();
    {
        Lock lock(m_lock);
        m_isStopped = true;
        for (const auto& client : m_clients) {
            client->listener = nullptr;
            client->isAttached = false;
        }
        for (const auto& client : m_clients) {
            endStreams(lock, *client, unavailable(SHUTTING_DOWN));
        }
        tellFailed(lock, m_failures.size());
    }
    lose("shutting down");
    m_clients.clear();
}

void ClientConnection::abandon()
{
    StreamTable<Stream> streams; // destroyed without the lock
    std::deque<Failure> failures;
    const Lock lock(m_lock);
    m_isStopped = true;
    std::swap(streams, m_streams);
    std::swap(failures, m_failures);
}

} // namespace kesa::commadapter
