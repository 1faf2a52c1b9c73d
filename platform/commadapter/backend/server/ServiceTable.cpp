#include "backend/server/ServiceTable.h"

#include "backend/server/ServerConnection.h"

#include <kesa/Path.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::commadapter {

ServiceTable::ServiceTable(std::shared_ptr<IoLoop> loop, MakeHello makeHello, const ProvidedService& own,
                           std::shared_ptr<access::Table> table)
    : m_loop(std::move(loop)), m_makeHello(std::move(makeHello)), m_own(std::make_shared<ProvidedService>(own)),
      m_doorkeeper(std::move(table))
{}

ServiceTable::~ServiceTable() = default;

bool ServiceTable::provide(const std::string& path, IKesaApi* service)
{
    const auto provided = std::make_shared<ProvidedService>(ProvidedService{path, service});
    bool isAwaited = false;
    {
        const std::lock_guard lock(m_lock);
        if (!m_services.emplace(path, provided).second) {
            return true;
        }
        isAwaited = m_interests.count(path) != 0; // who asks from now on finds it
    }
    if (isAwaited) {
        m_loop->post([self = shared_from_this(), provided] { self->announce(provided); });
    }
    if (m_doorkeeper.hasTable()) {
        m_loop->post([self = shared_from_this(), path] { self->noteRules(path); });
    }
    return false;
}

/// Services mostly come one soon after the other: what is still at none of them then is said.
void ServiceTable::noteRules(const std::string& path)
{
    constexpr comm::TimeNs SOON = comm::SECOND;
    if (m_doorkeeper.noteService(path) && !std::exchange(m_saysIdleRules, true)) {
        m_loop->startTimer(comm::now() + SOON, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->m_saysIdleRules = false;
                self->m_doorkeeper.traceIdleRules();
            }
        });
    }
}

void ServiceTable::withdraw(const std::string& path)
{
    std::unique_lock lock(m_lock);
    const auto node = m_services.extract(path);
    lock.unlock();
    if (!node.empty()) {
        m_loop->runAndWait(path, [this, service = node.mapped()] {
            withdrawNow(service);
            if (const auto next = find(service->path)) { // the own one
                announce(next);
            }
        });
    }
}

/// A connection that asked for the path meanwhile has the service already.
void ServiceTable::announce(const std::shared_ptr<ProvidedService>& service)
{
    const auto found = m_interests.find(service->path);
    if (found == m_interests.end() || service->isWithdrawn) {
        return;
    }
    for (const Interest& interest : found->second) {
        if (service != m_own) {
            interest.client->withdrawn(interest.target, *m_own);
        }
        interest.client->provided(interest.target, service);
    }
}

void ServiceTable::withdrawNow(const std::shared_ptr<ProvidedService>& service)
{
    m_loop->onLoop(__func__);
    const auto found = m_interests.find(service->path);
    if (found != m_interests.end()) {
        const auto interests = found->second; // calls to the service may change them
        for (const Interest& interest : interests) {
            interest.client->withdrawn(interest.target, *service);
        }
    }
    service->isWithdrawn = true;
}

void ServiceTable::abandon()
{
    {
        const std::lock_guard lock(m_lock);
        m_interests.clear();
    }
    m_connections.clear();
}

void ServiceTable::accept(std::unique_ptr<transport::IStream> stream, const std::string& scheme,
                          std::weak_ptr<const transport::ITransport> transport)
{
    m_loop->onLoop(__func__);
    const auto connection =
        std::make_shared<ServerConnection>(m_loop, shared_from_this(), scheme, std::move(transport));
    const std::string why = whyRefused(stream->peer());
    m_connections.push_back(connection);
    connection->begin(std::move(stream), m_makeHello());
    count(*connection, true);
    if (!why.empty()) {
        connection->cutOff(why);
    }
}

/// Each costs descriptors, of which there are few: one process, or all those of another user, must not have them all.
std::string ServiceTable::whyRefused(const transport::PeerIdentity& peer)
{
    const UserAccounts& accounts = m_loop->accounts();
    const auto ofProcess = peer.pid > 0 ? m_ofProcess.find(peer.pid) : m_ofProcess.end();
    if (ofProcess != m_ofProcess.end() && ofProcess->second >= UserAccounts::mostConnectionsOfProcess()) {
        return fmt::format("the process has {}, and one process may have {}", ofProcess->second,
                           UserAccounts::mostConnectionsOfProcess());
    }
    const std::string why = accounts.whyNoMore(UserAccounts::Kind::eCONNECTIONS, peer.uid, 1);
    return why.empty() || endIdle(peer.uid) ? std::string() : why;
}

/// The oldest one of the user that asks for nothing.
bool ServiceTable::endIdle(std::int64_t uid)
{
    const auto idle = std::find_if(m_connections.begin(), m_connections.end(), [uid](const auto& connection) {
        return connection->identity().uid == uid && connection->isIdle();
    });
    if (idle == m_connections.end()) {
        return false;
    }
    const auto keep = *idle;
    keep->cutOff("it asks for nothing, and its user has no more connections to open");
    return true;
}

void ServiceTable::count(const ServerConnection& connection, bool isMore)
{
    const transport::PeerIdentity& peer = connection.identity();
    m_loop->accounts().change(UserAccounts::Kind::eCONNECTIONS, peer.uid, isMore ? 0 : 1, isMore ? 1 : 0);
    if (isMore) {
        ++m_ofProcess[peer.pid];
    } else if (const auto found = m_ofProcess.find(peer.pid); --found->second == 0) {
        m_ofProcess.erase(found);
    }
}

void ServiceTable::stop()
{
    m_loop->onLoop(__func__);
    std::unique_lock lock(m_lock);
    const auto services = std::exchange(m_services, {});
    lock.unlock();
    for (const auto& [path, service] : services) {
        withdrawNow(service);
    }
    for (const auto& connection : std::exchange(m_connections, {})) {
        connection->end();
    }
    lock.lock();
    m_interests.clear();
}

InterestList::iterator ServiceTable::addInterest(Interests& client, std::uint32_t target, const std::string& path)
{
    const std::lock_guard lock(m_lock);
    InterestList& interests = m_interests[path];
    return interests.insert(interests.end(), {&client, target});
}

void ServiceTable::removeInterest(const std::string& path, InterestList::iterator interest)
{
    const std::lock_guard lock(m_lock);
    const auto found = m_interests.find(path);
    found->second.erase(interest);
    if (found->second.empty()) {
        m_interests.erase(found);
    }
}

std::shared_ptr<ProvidedService> ServiceTable::find(const std::string& path) const
{
    const std::lock_guard lock(m_lock);
    const auto found = m_services.find(path);
    if (found != m_services.end()) {
        return found->second;
    }
    return path == m_own->path ? m_own : nullptr;
}

std::size_t ServiceTable::addFacts(std::vector<ConnectionFacts>& facts, std::size_t most) const
{
    m_loop->onLoop(__func__);
    for (auto connection = m_connections.begin(); connection != m_connections.end() && most > 0; ++connection, --most) {
        facts.push_back((*connection)->facts());
    }
    return m_connections.size();
}

std::size_t ServiceTable::addPaths(std::vector<std::string>& paths, std::size_t most) const
{
    std::unique_lock lock(m_lock);
    const std::size_t count = m_services.size();
    for (auto service = m_services.begin(); service != m_services.end() && paths.size() < most; ++service) {
        paths.push_back(service->first);
    }
    lock.unlock();
    std::sort(paths.begin(), paths.end());
    return count;
}

Response ServiceTable::explainAccess(const util::config::Value& question, const RequestContext* asker)
{
    m_loop->onLoop(__func__);
    const std::string path(question["path"].stringView());
    if (Path::complaintAboutService(path).empty() && !find(path)) { // whoever asks for any path has nothing kept for it
        return Response::createErrorResponse(404, "this process does not provide \"" + path + "\"");
    }
    std::vector<const RequestContext*> clients;
    for (const auto& connection : m_connections) {
        if (!connection->isLocal()) {
            clients.push_back(&connection->client());
        }
    }
    return m_doorkeeper.explain(question, asker, clients);
}

void ServiceTable::remove(const std::shared_ptr<ServerConnection>& connection)
{
    if (m_connections.remove(connection) > 0) {
        count(*connection, false);
    }
}

} // namespace kesa::commadapter
