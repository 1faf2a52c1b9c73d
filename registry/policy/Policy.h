#ifndef KESA_REGISTRY_POLICY_POLICY_H
#define KESA_REGISTRY_POLICY_POLICY_H

#include "policy/Permit.h"

#include <rules/IAccounts.h>
#include <rules/IdentityNames.h>
#include <rules/Rule.h>

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kesa::registry {

/// Who may register and see which services.
///
/// Without rules everybody may register, and sees what his own user, root and the registry's user provide, and what is
/// marked as public in its record. With rules, what none of them lets somebody do is refused; what his own user
/// provides he sees all the same. Root and the registry's user may everything, and everybody sees the registry.
///
/// Not for several threads at once, and neither are its permits.
class Policy {
public:
    /// No rules: the usual policy.
    explicit Policy(std::int64_t ownUid, const access::IAccounts* accounts = nullptr)
        : m_ownUid(ownUid), m_names(accounts)
    {}
    /// `file`: where the rules stand, for people. `accounts` outlives it.
    Policy(std::int64_t ownUid, std::vector<access::Rule> rules, std::string file, const access::IAccounts& accounts);

    /// The same one for all who may the same. Null: he may everything.
    PermitPtr permitOf(const access::Identity& identity);

    /// Whether a rule asks for the name of a process, which has to be proven.
    bool asksForProcess() const noexcept { return m_asksForProcess; }
    bool hasRules() const noexcept { return m_rules.has_value(); }

    /// How many there are and where, for people.
    std::string summary() const;

    struct Verdict {
        bool isAllowed = false;
        std::string because; ///< for people: by which rule, or what is missing and where it would have to stand
    };
    /// `record`: what is there at the path, to be seen; null: nothing.
    Verdict judge(const access::Identity& identity, Right right, const std::string& path,
                  const Record* record = nullptr);
    /// Its number where it has none; empty when it is unknown.
    std::string userName(std::int64_t uid) { return m_names.userName(uid); }
    /// "user media (uid 1001), process player".
    std::string describe(const access::Identity& identity) { return m_names.describe(identity); }

private:
    struct Known {
        PermitPtr permit;
        std::string who;                                    ///< for refusals, as the next one; empty until the first
        std::array<std::string, RIGHT_NAMES.size()> others; ///< which rules there are, by right
    };

    Known& know(const access::Identity& identity);
    std::string whichOthers(const access::Identity& identity, Right right) const;
    std::string whyRefused(const access::Identity& identity, Right right, const std::string& path);
    std::string whySeen(const access::Identity& identity, const Record* record) const;

    const std::int64_t m_ownUid;
    std::optional<std::vector<access::Rule>> m_rules;
    std::string m_file;
    access::IdentityNames m_names;
    bool m_asksForProcess = false;
    std::map<access::Identity, Known> m_known; ///< bounded
    std::map<std::pair<std::int64_t, std::vector<std::size_t>>, std::weak_ptr<Permit>> m_permits;
};

} // namespace kesa::registry

#endif
