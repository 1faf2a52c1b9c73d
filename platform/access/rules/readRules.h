#ifndef KESA_ACCESS_RULES_READRULES_H
#define KESA_ACCESS_RULES_READRULES_H

#include "rules/IAccounts.h"
#include "rules/Rule.h"
#include "rules/RuleForm.h"

#include <obr/api.h>
#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <vector>

namespace kesa::access {

/// The rules of a list, without their places. `place` is where that stands. With an error among the complaints the
/// table does not count: something may be allowed or forbidden that nobody meant.
KESA_API std::vector<Rule> readRules(const util::config::Value& list, const util::config::DocumentPath& place,
                                     const RuleForm& form, const IAccounts& accounts,
                                     std::vector<util::config::Complaint>& complaints);

} // namespace kesa::access

#endif
