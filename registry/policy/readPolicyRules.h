#ifndef KESA_REGISTRY_POLICY_READPOLICYRULES_H
#define KESA_REGISTRY_POLICY_READPOLICYRULES_H

#include <rules/IAccounts.h>
#include <rules/Rule.h>
#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <vector>

namespace kesa::registry {

/// The rules of "registry", "policy": see `access::readRules`.
std::vector<access::Rule> readPolicyRules(const util::config::Value& policy, const util::config::DocumentPath& place,
                                          const access::IAccounts& accounts,
                                          std::vector<util::config::Complaint>& complaints);

} // namespace kesa::registry

#endif
