#include <runtime/v02/runtime/OpenProxies.h>

#include <utility>

namespace kesa::runtime::v02 {

void OpenProxies::add(const url& locator, std::shared_ptr<const IKesaApi> owner,
                      const commadapter::KesaClientApi& client)
{
    const std::shared_ptr<const commadapter::KesaClientApi> kept(std::move(owner), &client);
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clients.insert_or_assign(locator.toString(), kept);
}

void OpenProxies::remove(const url& locator)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_clients.erase(locator.toString());
}

std::string OpenProxies::obstacle(const url& locator) const
{
    std::shared_ptr<const commadapter::KesaClientApi> client;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_clients.find(locator.toString());
        client = found == m_clients.end() ? nullptr : found->second.lock();
    }
    return client ? client->obstacle() : std::string();
}

} // namespace kesa::runtime::v02
