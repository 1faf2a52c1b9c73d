#include "rules/IdentityNames.h"

#include <obr/visible.h>

#include <fmt/format.h>

namespace kesa::access {

std::string IdentityNames::userName(std::int64_t uid)
{
    constexpr std::size_t MOST_KNOWN = 4096;
    if (uid < 0 || m_accounts == nullptr) {
        return {};
    }
    if (m_users.size() >= MOST_KNOWN) {
        m_users.clear();
    }
    const auto [known, isNew] = m_users.try_emplace(uid);
    if (isNew) {
        known->second = m_accounts->userName(uid);
    }
    return known->second;
}

std::string IdentityNames::describe(const Identity& identity)
{
    const std::string name = userName(identity.uid);
    const std::string uid = identity.uid < 0 ? "unknown" : std::to_string(identity.uid);
    return fmt::format("{}{}", name.empty() || name == uid ? "user " + uid : fmt::format("user {} (uid {})", name, uid),
                       identity.process.empty() ? "" : ", process " + obr::visible(identity.process));
}

} // namespace kesa::access
