#ifndef KESA_REGISTRY_POLICY_PERMIT_H
#define KESA_REGISTRY_POLICY_PERMIT_H

#include "policy/Right.h"
#include "store/Viewer.h"

#include <globs/PatternTrie.h>
#include <rules/Rule.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kesa::registry {

/// What one user may, or some of his processes: the rules that concern them, so that others cost nothing.
class Permit final : public Sight {
public:
    /// Of a policy without rules.
    Permit(std::int64_t uid, std::int64_t ownUid);
    Permit(std::int64_t uid, const std::vector<access::Rule>& rules, const std::vector<std::size_t>& concerning);

    bool mayRegister(const std::string& path) { return !m_hasRules || find(Right::eREGISTER, path).has_value(); }
    bool sees(const Record& record) override;
    /// What that user provides at the path, unless it is public.
    bool seesOf(std::int64_t uid, const std::string& path);
    /// The first rule that lets do it, from 0.
    std::optional<std::size_t> find(Right right, const std::string& path);

private:
    bool judge(const Record& record);

    const std::int64_t m_uid;
    const std::int64_t m_ownUid;
    const bool m_hasRules;
    std::array<access::PatternTrie, RIGHT_NAMES.size()> m_paths; ///< the globs of the rules, by their numbers
    std::vector<access::PatternTrie::Id> m_matching;             ///< only inside `find`
    // Many ask for the same record one after the other.
    std::uint64_t m_lastRecord = 0; ///< its number
    bool m_lastVerdict = false;
};
using PermitPtr = std::shared_ptr<Permit>;

/// Whether its provider has marked it as one that every user may see.
bool isPublic(const Record& record);

} // namespace kesa::registry

#endif
