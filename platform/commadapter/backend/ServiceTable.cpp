#include "backend/ServiceTable.h"

#include "backend/ServerConnection.h"

namespace kesa::commadapter {

ServiceTable::ServiceTable(std::shared_ptr<IoLoop> loop, MakeHello makeHello)
    : m_loop(std::move(loop)), m_makeHello(std::move(makeHello))
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
    return false;
}

void ServiceTable::withdraw(const std::string& path)
{
    std::unique_lock lock(m_lock);
    const auto node = m_services.extract(path);
    lock.unlock();
    if (!node.empty()) {
        m_loop->runAndWait(path, [this, service = node.mapped()] { withdrawNow(service); });
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
        interest.connection->provided(interest.target, service);
    }
}

void ServiceTable::withdrawNow(const std::shared_ptr<ProvidedService>& service)
{
    m_loop->onLoop(__func__);
    const auto found = m_interests.find(service->path);
    if (found != m_interests.end()) {
        const auto interests = found->second; // calls to the service may change them
        for (const Interest& interest : interests) {
            interest.connection->withdrawn(interest.target, *service);
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

void ServiceTable::accept(std::unique_ptr<transport::IStream> stream, const std::string& scheme)
{
    m_loop->onLoop(__func__);
    const auto connection = std::make_shared<ServerConnection>(m_loop, shared_from_this(), scheme);
    m_connections.push_back(connection);
    connection->begin(std::move(stream), m_makeHello());
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

Interests::iterator ServiceTable::addInterest(ServerConnection& connection, std::uint32_t target,
                                              const std::string& path)
{
    const std::lock_guard lock(m_lock);
    Interests& interests = m_interests[path];
    return interests.insert(interests.end(), {&connection, target});
}

void ServiceTable::removeInterest(const std::string& path, Interests::iterator interest)
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
    return found == m_services.end() ? nullptr : found->second;
}

void ServiceTable::remove(const std::shared_ptr<ServerConnection>& connection)
{
    m_connections.remove(connection);
}

} // namespace kesa::commadapter
