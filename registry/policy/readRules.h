#ifndef KESA_REGISTRY_POLICY_READRULES_H
#define KESA_REGISTRY_POLICY_READRULES_H

#include "policy/Rule.h"

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <vector>

namespace kesa::registry {

/// The rules of "registry", "policy", without their lines. `place` is where that stands. With an error among the
/// complaints the table does not count: something may be allowed or forbidden that nobody meant.
std::vector<Rule> readRules(const util::config::Value& policy, const util::config::DocumentPath& place,
                            const IAccounts& accounts, std::vector<util::config::Complaint>& complaints);

} // namespace kesa::registry

#endif
