#include "policy/readPolicy.h"

#include "policy/readPolicyRules.h"

#include <rules/readDocumentRules.h>
#include <rules/systemAccounts.h>

#include <utility>

namespace kesa::registry {

using access::systemAccounts;

ReadPolicy readPolicy(std::int64_t ownUid)
{
    access::DocumentRules found =
        access::readDocumentRules({"registry", "policy"}, access::policyForm(),
                                  [](const util::config::Value& list, const util::config::DocumentPath& place,
                                     std::vector<util::config::Complaint>& complaints) {
                                      return readPolicyRules(list, place, systemAccounts(), complaints);
                                  });
    ReadPolicy read;
    read.problem = std::move(found.problem);
    read.warnings = std::move(found.warnings);
    if (found.rules) {
        read.policy = std::make_shared<Policy>(ownUid, std::move(*found.rules), found.file, systemAccounts());
    } else if (read.problem.empty()) {
        read.policy = std::make_shared<Policy>(ownUid, &systemAccounts());
    }
    read.file = std::move(found.file);
    return read;
}

} // namespace kesa::registry
