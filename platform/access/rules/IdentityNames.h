#ifndef KESA_ACCESS_RULES_IDENTITYNAMES_H
#define KESA_ACCESS_RULES_IDENTITYNAMES_H

#include "rules/IAccounts.h"
#include "rules/Identity.h"

#include <obr/api.h>

#include <cstdint>
#include <map>
#include <string>

namespace kesa::access {

/// Says who somebody is. The names of users are remembered, as looking one up may take long. Not for several threads
/// at once.
class KESA_API IdentityNames {
public:
    /// Without accounts users have their numbers. They outlive this.
    explicit IdentityNames(const IAccounts* accounts) : m_accounts(accounts) {}

    /// Its number where it has none; empty when it is unknown, or without accounts.
    std::string userName(std::int64_t uid);
    /// "user media (uid 1001), process player".
    std::string describe(const Identity& identity);

private:
    const IAccounts* m_accounts;
    std::map<std::int64_t, std::string> m_users; ///< bounded
};

} // namespace kesa::access

#endif
