#ifndef KESA_ACCESS_RULES_IACCOUNTS_H
#define KESA_ACCESS_RULES_IACCOUNTS_H

#include <obr/api.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kesa::access {

/// What the rules look up of the machine's users and groups.
class KESA_API IAccounts {
public:
    virtual ~IAccounts();
    virtual std::optional<std::int64_t> findUser(const std::string& nameOrNumber) const = 0;
    virtual std::optional<std::int64_t> findGroup(const std::string& nameOrNumber) const = 0;
    virtual std::vector<std::int64_t> membersOf(std::int64_t group) const = 0;
    /// A user's own one; -1: unknown.
    virtual std::int64_t groupOf(std::int64_t user) const = 0;
    virtual std::string userName(std::int64_t user) const = 0;
};

} // namespace kesa::access

#endif
