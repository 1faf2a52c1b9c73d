#ifndef KESA_REGISTRY_POLICY_POLICY_H
#define KESA_REGISTRY_POLICY_POLICY_H

#include "policy/Permit.h"
#include "policy/Rule.h"

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
    explicit Policy(std::int64_t ownUid, const IAccounts* accounts = nullptr) : m_ownUid(ownUid), m_accounts(accounts)
    {}
    /// `file`: where the rules stand, for people. `accounts` outlives it.
    Policy(std::int64_t ownUid, std::vector<Rule> rules, std::string file, const IAccounts& accounts);

    /// The same one for all who may the same. Null: he may everything.
    PermitPtr permitOf(const Identity& identity);

    /// Whether a rule asks for the name of a process, which has to be proven.
    bool asksForProcess() const noexcept { return m_asksForProcess; }
    bool hasRules() const noexcept { return m_rules.has_value(); }

    struct Verdict {
        bool isAllowed = false;
        std::string because; ///< for people: by which rule, or what is missing and where it would have to stand
    };
    /// `record`: what is there at the path, to be seen; null: nothing.
    Verdict judge(const Identity& identity, Right right, const std::string& path, const Record* record = nullptr);
    /// Its number where it has none; empty when it is unknown. Looked up once.
    std::string userName(std::int64_t uid);
    /// "user media (uid 1001), process player".
    std::string describe(const Identity& identity);

private:
    std::vector<std::size_t> concerning(const Identity& identity) const;
    std::string placeOf(std::size_t rule) const;
    std::string whyRefused(const Identity& identity, Right right, const std::string& path);
    std::string whySeen(const Identity& identity, const Record* record) const;

    const std::int64_t m_ownUid;
    std::optional<std::vector<Rule>> m_rules;
    std::string m_file;
    const IAccounts* m_accounts = nullptr;
    bool m_asksForProcess = false;
    std::map<Identity, PermitPtr> m_known; ///< bounded
    std::map<std::pair<std::int64_t, std::vector<std::size_t>>, std::weak_ptr<Permit>> m_permits;
    std::map<std::int64_t, std::string> m_userNames; ///< bounded
};

} // namespace kesa::registry

#endif
