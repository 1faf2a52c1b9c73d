#ifndef KESA_ACCESS_RULES_RULEFORM_H
#define KESA_ACCESS_RULES_RULEFORM_H

#include <obr/api.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesa::access {

/// What the rules of one table may say beside whom they are for.
struct RuleForm {
    std::string_view action;               ///< what one of "may" is called: "right"
    std::vector<std::string_view> actions; ///< that are known
    /// By which rules of another table, that stand in the wrong place, are told from those of this one.
    std::vector<std::string_view> actionsElsewhere{};
    bool mayBeOther = false; ///< others are taken, too, and "*" for all
    bool hasProcesses = true;
    bool hasPaths = true;
    bool hasResources = false;
    std::string example; ///< a good rule
};

/// Of "access" in the document of a process.
KESA_API const RuleForm& accessForm();
/// Of the rules that a service is given in its code: all are of that service. The name of a process cannot be proven
/// on any loop but the backend's, so they do not ask for it.
KESA_API const RuleForm& serviceForm();

} // namespace kesa::access

#endif
