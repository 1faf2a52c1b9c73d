#include "backend/client/ClientTable.h"

namespace kesa::commadapter {

namespace {

constexpr comm::TimeNs LINGER = 2 * comm::SECOND;

} // namespace

ClientTable::ClientTable(std::shared_ptr<IoLoop> loop, MakeHello makeHello, OpenLocal openLocal)
    : m_loop(std::move(loop)), m_makeHello(std::move(makeHello)), m_openLocal(std::move(openLocal))
{}

std::shared_ptr<ClientConnection> ClientTable::use(const Destination& destination)
{
    const std::lock_guard lock(m_lock);
    Entry& entry = m_entries[destination.endpoint.toString()];
    if (!entry.connection) {
        entry.connection = std::make_shared<ClientConnection>(
            m_loop, destination, m_makeHello, m_openLocal,
            [weakSelf = weak_from_this()](ClientConnection& connection, bool serviceRemoved) {
                if (const auto self = weakSelf.lock()) {
                    self->unused(connection, serviceRemoved);
                }
            });
    }
    ++entry.users;
    return entry.connection;
}

void ClientTable::unused(ClientConnection& connection, bool atOnce)
{
    m_loop->onLoop(__func__);
    const std::string key = connection.destination().endpoint.toString();
    {
        const std::lock_guard lock(m_lock);
        const auto found = m_entries.find(key);
        if (found == m_entries.end() || found->second.connection.get() != &connection || --found->second.users > 0) {
            return;
        }
    }
    if (atOnce) {
        endUnused(key);
        return;
    }
    m_loop->startTimer(comm::now() + LINGER, [weakSelf = weak_from_this(), key] {
        if (const auto self = weakSelf.lock()) {
            self->endUnused(key);
        }
    });
}

void ClientTable::endUnused(const std::string& key)
{
    std::unique_lock lock(m_lock);
    const auto found = m_entries.find(key);
    if (found == m_entries.end() || found->second.users > 0) {
        return;
    }
    const auto connection = std::move(found->second.connection);
    m_entries.erase(found);
    lock.unlock();
    connection->disconnect();
}

ClientTable::Entries ClientTable::takeAll()
{
    const std::lock_guard lock(m_lock);
    return std::exchange(m_entries, {});
}

std::size_t ClientTable::addFacts(std::vector<ConnectionFacts>& facts, std::size_t most)
{
    m_loop->onLoop(__func__);
    std::vector<std::shared_ptr<ClientConnection>> connections;
    std::unique_lock lock(m_lock);
    const std::size_t count = m_entries.size();
    for (auto entry = m_entries.begin(); entry != m_entries.end() && connections.size() < most; ++entry) {
        connections.push_back(entry->second.connection);
    }
    lock.unlock();
    for (const auto& connection : connections) {
        facts.push_back(connection->facts());
    }
    return count;
}

void ClientTable::stop()
{
    m_loop->onLoop(__func__);
    for (const auto& [key, entry] : takeAll()) {
        entry.connection->stop();
    }
}

void ClientTable::abandon()
{
    for (const auto& [key, entry] : takeAll()) {
        entry.connection->abandon();
    }
}

} // namespace kesa::commadapter
