#ifndef KESA_REGISTRY_POLICY_READPOLICYRULES_H
#define KESA_REGISTRY_POLICY_READPOLICYRULES_H

#include <rules/IAccounts.h>
#include <rules/Rule.h>
#include <rules/RuleForm.h>
#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <cstddef>
#include <vector>

namespace kesa::registry {

/// Of a document that is read for its policy. It is read while the registry serves, by who also hears that it shall
/// end.
inline constexpr std::size_t MOST_DOCUMENT_BYTES = std::size_t{2} << 20U;

const access::RuleForm& policyForm();

/// The rules of "registry", "policy": see `access::readRules`.
std::vector<access::Rule> readPolicyRules(const util::config::Value& policy, const util::config::DocumentPath& place,
                                          const access::IAccounts& accounts,
                                          std::vector<util::config::Complaint>& complaints);

} // namespace kesa::registry

#endif
