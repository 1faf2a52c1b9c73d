#ifndef KESA_ACCESS_RULES_READDOCUMENTRULES_H
#define KESA_ACCESS_RULES_READDOCUMENTRULES_H

#include "rules/Rule.h"
#include "rules/RuleForm.h"

#include <obr/api.h>
#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kesa::access {

/// A table of rules in the document that this process reads, as it is now.
struct DocumentRules {
    std::optional<std::vector<Rule>> rules; ///< none: the document has no such table, or `problem` says why not
    std::string file;                       ///< empty: there is no document
    std::string problem;                    ///< why the table does not count
    std::vector<std::string> warnings;
};
using RulesReader =
    std::function<std::vector<Rule>(const util::config::Value& list, const util::config::DocumentPath& place,
                                    std::vector<util::config::Complaint>& complaints)>;

/// `place`: of the table in the configuration; one that stands elsewhere is a problem. `form`: what `read` takes.
KESA_API DocumentRules readDocumentRules(const util::config::DocumentPath& place, const RuleForm& form,
                                         const RulesReader& read);

} // namespace kesa::access

#endif
