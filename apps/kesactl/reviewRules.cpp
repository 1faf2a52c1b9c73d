#include "reviewRules.h"

#include <gates/readAccess.h>
#include <policy/readPolicyRules.h>
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

/// What is no list the reading of the document has complained of.
RulesInWords review(ConfigReport& report, const Value& list, const DocumentPath& place,
                    const kesa::access::RulesReader& read)
{
    RulesInWords words;
    if (auto misnamed = kesa::access::findMisnamedTable(report.root, place)) {
        misnamed->path = report.path(std::move(misnamed->path));
        report.add(std::move(*misnamed));
    }
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
    return review(report, report.root["registry"]["policy"], {"registry", "policy"},
                  [](const Value& list, const DocumentPath& place, Complaints& complaints) {
                      return kesa::registry::readPolicyRules(list, place, systemAccounts(), complaints);
                  });
}

RulesInWords reviewAccess(ConfigReport& report)
{
    bool isClosed = false;
    const auto read = [&isClosed](const Value& list, const DocumentPath& place, Complaints& complaints) {
        auto rules = kesa::access::readAccessRules(list, place, complaints);
        isClosed = std::any_of(complaints.begin(), complaints.end(), [](const Complaint& complaint) {
            return complaint.severity == Complaint::Severity::eERROR;
        });
        return rules;
    };
    RulesInWords words = review(report, report.root["access"], {"access"}, read);
    return isClosed ? RulesInWords{{"other users", "may nothing, since a rule is wrong"}} : words;
}

} // namespace kesactl
