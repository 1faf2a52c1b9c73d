#include "gates/readAccess.h"

#include "rules/readDocumentRules.h"
#include "rules/readRules.h"
#include "rules/systemAccounts.h"

#include <fmt/format.h>

#include <utility>

namespace kesa::access {

std::vector<Rule> readAccessRules(const util::config::Value& list, const util::config::DocumentPath& place,
                                  std::vector<util::config::Complaint>& complaints)
{
    if (list.isArray() && list.arraySize() == 0) {
        complaints.push_back({util::config::Complaint::Severity::eWARNING, place,
                              "the list is empty: every service is open to everybody",
                              "write a rule for those that are not to be, or leave it out"});
    }
    return readRules(list, place, accessForm(), systemAccounts(), complaints);
}

ReadAccess readAccess(std::int64_t ownUid)
{
    DocumentRules found = readDocumentRules({"access"}, accessForm(), readAccessRules);
    ReadAccess read;
    read.problem = std::move(found.problem);
    read.warnings = std::move(found.warnings);
    if (!read.problem.empty()) { // of what may be written there, nothing is known
        read.table = std::make_shared<Table>(ownUid, read.problem, systemAccounts());
    } else if (found.rules && !found.rules->empty()) {
        read.table = std::make_shared<Table>(ownUid, std::move(*found.rules),
                                             fmt::format("\"access\" in {}", found.file), systemAccounts());
    }
    return read;
}

} // namespace kesa::access
