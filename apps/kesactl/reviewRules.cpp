#include "reviewRules.h"

#include <gates/readAccess.h>
#include <policy/readPolicyRules.h>
#include <rules/findMisnamedTable.h>
#include <rules/readDocumentRules.h>
#include <rules/systemAccounts.h>
#include <util/config/JsonPositions.h>

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace kesactl {

namespace {

using kesa::access::Rule;
using kesa::access::systemAccounts;
using kesa::runtime::v02::ConfigReport;
using util::config::Complaint;
using util::config::DocumentPath;
using util::config::Value;
using Complaints = std::vector<Complaint>;

bool isMisnamed(ConfigReport& report, const DocumentPath& place, const kesa::access::RuleForm& form)
{
    auto misnamed = kesa::access::findMisnamedTable(report.root, place, form);
    if (misnamed) {
        misnamed->path = report.path(std::move(misnamed->path));
        report.add(std::move(*misnamed));
    }
    return misnamed.has_value();
}

/// What is no list the reading of the document has complained of.
RulesInWords review(ConfigReport& report, const Value& list, const DocumentPath& place,
                    const kesa::access::RulesReader& read)
{
    RulesInWords words;
    if (!list.isArray()) {
        return words;
    }
    const DocumentPath whole = report.path(place);
    Complaints complaints;
    const std::vector<Rule> rules = read(list, whole, complaints);
    for (Complaint& complaint : complaints) {
        report.add(std::move(complaint));
    }
    std::ifstream in(report.file, std::ios::binary);
    const util::config::JsonPositions positions(std::string(std::istreambuf_iterator<char>(in), {}));
    for (std::size_t i = 0; i < rules.size(); ++i) {
        DocumentPath element = whole;
        element.emplace_back(i);
        words.emplace_back(fmt::format("rule {} (line {})", i + 1, positions.find(element).line),
                           rules[i].who + (rules[i].may.empty() ? " may nothing" : " " + rules[i].what));
    }
    return words;
}

} // namespace

RulesInWords reviewPolicy(ConfigReport& report)
{
    const DocumentPath place{"registry", "policy"};
    static_cast<void>(isMisnamed(report, place, kesa::registry::policyForm()));
    return review(report, report.root["registry"]["policy"], place,
                  [](const Value& list, const DocumentPath& where, Complaints& complaints) {
                      return kesa::registry::readPolicyRules(list, where, systemAccounts(), complaints);
                  });
}

RulesInWords reviewAccess(ConfigReport& report)
{
    const DocumentPath place{"access"};
    bool isClosed = isMisnamed(report, place, kesa::access::accessForm());
    const auto read = [&isClosed](const Value& list, const DocumentPath& where, Complaints& complaints) {
        auto rules = kesa::access::readAccessRules(list, where, complaints);
        isClosed = std::any_of(complaints.begin(), complaints.end(), [](const Complaint& complaint) {
            return complaint.severity == Complaint::Severity::eERROR;
        });
        return rules;
    };
    RulesInWords words = review(report, report.root["access"], place, read);
    return isClosed ? RulesInWords{{"other users", "may nothing, since a rule is wrong"}} : words;
}

} // namespace kesactl
