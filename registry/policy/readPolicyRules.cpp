#include "policy/readPolicyRules.h"

#include "policy/Right.h"

#include <rules/RuleForm.h>
#include <rules/readRules.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::registry {

using access::Rule;
using util::config::Complaint;
using util::config::DocumentPath;

namespace {

/// A table that lets nobody do the one or the other is rarely meant.
void complainOfMissingRights(const std::vector<Rule>& rules, const DocumentPath& place,
                             std::vector<Complaint>& complaints)
{
    for (const Right right : {Right::eREGISTER, Right::eSEE}) {
        if (std::none_of(rules.begin(), rules.end(), [right](const Rule& rule) { return rule.lets(nameOf(right)); })) {
            complaints.push_back(
                {Complaint::Severity::eWARNING, place,
                 right == Right::eREGISTER
                     ? "no rule lets anybody register: only root and the registry's own user can"
                     : "no rule lets anybody see what other users provide: only root and the registry's own user can",
                 fmt::format("write a rule with \"{}\", unless that is meant", nameOf(right))});
        }
    }
}

} // namespace

std::vector<Rule> readPolicyRules(const util::config::Value& policy, const DocumentPath& place,
                                  const access::IAccounts& accounts, std::vector<Complaint>& complaints)
{
    const std::size_t before = complaints.size();
    std::vector<Rule> rules = access::readRules(policy, place, access::policyForm(), accounts, complaints);
    if (policy.isArray() && complaints.size() == before) {
        complainOfMissingRights(rules, place, complaints);
    }
    return rules;
}

} // namespace kesa::registry
