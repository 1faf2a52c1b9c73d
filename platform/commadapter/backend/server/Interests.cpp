#include "backend/server/Interests.h"

#include "backend/server/ServerConnection.h"

namespace kesa::commadapter {

namespace {

constexpr std::size_t MAX_TARGETS = 65536;

} // namespace

void Interests::attach(std::uint32_t target, std::string path)
{
    if (m_targets.size() >= MAX_TARGETS) {
        m_connection.cutOff("too many paths");
        return;
    }
    const auto [entry, isNew] = m_targets.try_emplace(target);
    if (!isNew) {
        m_connection.cutOff("target " + std::to_string(target) + " is in use");
        return;
    }
    entry->second.interest = m_services.addInterest(*this, target, path);
    entry->second.path = std::move(path);
    if (const auto service = m_services.find(entry->second.path)) {
        provided(target, service);
    }
}

void Interests::detach(std::uint32_t target)
{
    const auto found = m_targets.find(target);
    if (found != m_targets.end()) {
        m_connection.m_served.cancelAll(found->second.open, "cancelled");
        m_services.removeInterest(found->second.path, found->second.interest);
        m_targets.erase(found);
    }
}

void Interests::end()
{
    for (auto& [number, target] : m_targets) {
        m_services.removeInterest(target.path, target.interest);
        m_connection.m_served.cancelAll(target.open, "");
    }
    m_targets.clear();
}

void Interests::provided(std::uint32_t target, const std::shared_ptr<ProvidedService>& service)
{
    Target& entry = m_targets.at(target);
    if (entry.service == service) {
        return;
    }
    entry.service = service;
    const auto lock = m_connection.lock();
    if (m_connection.isOpen()) {
        m_connection.output().attached(target);
        m_connection.pushOut();
    }
}

void Interests::withdrawn(std::uint32_t target, const ProvidedService& service)
{
    const auto found = m_targets.find(target);
    if (found == m_targets.end() || found->second.service.get() != &service) {
        return;
    }
    found->second.service = nullptr;
    m_connection.m_served.cancelAll(found->second.open, "the service was withdrawn");
    const auto lock = m_connection.lock();
    if (m_connection.isOpen()) {
        m_connection.output().detached(target);
        m_connection.pushOut();
    }
}

} // namespace kesa::commadapter
