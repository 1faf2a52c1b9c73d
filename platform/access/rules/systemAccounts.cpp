#include "rules/systemAccounts.h"

#include "rules/usersAndGroups.h"

namespace kesa::access {

namespace {

class SystemAccounts final : public IAccounts {
    std::optional<std::int64_t> findUser(const std::string& nameOrNumber) const override
    {
        return access::findUser(nameOrNumber);
    }
    std::optional<std::int64_t> findGroup(const std::string& nameOrNumber) const override
    {
        return access::findGroup(nameOrNumber);
    }
    std::vector<std::int64_t> membersOf(std::int64_t group) const override
    {
        const auto members = access::membersOf(static_cast<gid_t>(group));
        return {members.begin(), members.end()};
    }
    std::int64_t groupOf(std::int64_t user) const override
    {
        const auto group = access::groupOf(static_cast<uid_t>(user));
        return group ? static_cast<std::int64_t>(*group) : -1;
    }
    std::string userName(std::int64_t user) const override { return access::userName(static_cast<uid_t>(user)); }
};

} // namespace

const IAccounts& systemAccounts()
{
    static const SystemAccounts& accounts = *new SystemAccounts;
    return accounts;
}

} // namespace kesa::access
