#ifndef KESA_ACCESS_RULES_RULEFORM_H
#define KESA_ACCESS_RULES_RULEFORM_H

#include <obr/api.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::access {

/// Of one table. The registry reads its policy again while it serves: that has to be done soon.
inline constexpr std::size_t MOST_RULES = 10'000;
/// Different users and groups of one table, that are looked up in what the machine knows of them.
inline constexpr std::size_t MOST_LOOKED_UP = 1'000;

/// Of a document that is read for the policy. It is read while the registry serves, by who also hears that it shall
/// end.
inline constexpr std::size_t MOST_POLICY_BYTES = std::size_t{2} << 20U;

/// What the rules of one table may say beside whom they are for.
struct RuleForm {
    std::string_view name;                 ///< of the table, for people
    std::string_view action;               ///< what one of "may" is called: "right"
    std::vector<std::string_view> actions; ///< that are known
    /// Those of the other table, by which rules in the wrong place are told from those of this one.
    std::vector<std::string_view> actionsElsewhere{};
    std::string_view elsewhere{};      ///< what the other table is for, and where it stands
    std::size_t mostDocumentBytes = 0; ///< of what the table stands in; 0: as of any document
    bool mayBeOther = false;           ///< others are taken, too, and "*" for all
    bool hasProcesses = true;
    bool hasPaths = true;
    bool hasResources = false;
    std::string example; ///< a good rule
};

/// Of "access" in the document of a process.
KESA_API const RuleForm& accessForm();
/// Of "registry", "policy" in the document of the registry's process.
KESA_API const RuleForm& policyForm();
/// Of the rules that a service is given in its code: all are of that service. The name of a process cannot be proven
/// on any loop but the backend's, so they do not ask for it.
KESA_API const RuleForm& serviceForm();

} // namespace kesa::access

#endif
