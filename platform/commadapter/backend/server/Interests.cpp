#include "backend/server/Interests.h"

#include "backend/server/ServerConnection.h"

namespace kesa::commadapter {

namespace {

/// What a path costs beside its text, which is kept twice.
constexpr std::size_t COST = 256;

std::size_t costOf(const std::string& path)
{
    return COST + 2 * path.size();
}

} // namespace

void Interests::count(const std::string& path, bool isMore)
{
    const std::size_t bytes = isMore ? m_bytes + costOf(path) : m_bytes - costOf(path);
    m_connection.loop().accounts().change(UserAccounts::Kind::ePATHS, m_connection.identity().uid, m_bytes, bytes);
    m_bytes = bytes;
}

void Interests::attach(std::uint32_t target, std::string path)
{
    if (auto why = m_connection.loop().accounts().whyNoMore(UserAccounts::Kind::ePATHS, m_connection.identity().uid,
                                                            costOf(path));
        !why.empty()) {
        m_connection.cutOff(std::move(why));
        return;
    }
    const auto [entry, isNew] = m_targets.try_emplace(target);
    if (!isNew) {
        m_connection.cutOff("target " + std::to_string(target) + " is in use");
        return;
    }
    count(path, true);
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
        count(found->second.path, false);
        m_untold.erase(target);
        m_targets.erase(found);
    }
}

void Interests::end()
{
    for (auto& [number, target] : m_targets) {
        m_services.removeInterest(target.path, target.interest);
        m_connection.m_served.cancelAll(target.open, "");
        count(target.path, false);
    }
    m_targets.clear();
    m_untold.clear();
}

void Interests::provided(std::uint32_t target, const std::shared_ptr<ProvidedService>& service)
{
    Target& entry = m_targets.at(target);
    if (entry.service == service) {
        return;
    }
    entry.service = service;
    if (m_connection.isHeld()) {
        m_untold.insert(target);
    } else {
        tellProvided(target);
    }
}

void Interests::tellProvided(std::uint32_t target)
{
    const auto lock = m_connection.lock();
    if (m_connection.isOpen()) {
        m_connection.output().attached(target);
        m_connection.pushOut();
    }
}

void Interests::tellUntold()
{
    while (!m_untold.empty() && !m_connection.isHeld()) {
        tellProvided(m_untold.extract(m_untold.begin()).value());
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
    if (m_untold.erase(target) > 0) {
        return;
    }
    const auto lock = m_connection.lock();
    if (m_connection.isOpen()) {
        m_connection.output().detached(target);
        m_connection.pushOut();
    }
}

} // namespace kesa::commadapter
