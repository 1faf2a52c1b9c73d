#include "reviewRules.h"

#include <gates/readAccess.h>
#include <policy/readPolicyRules.h>
#include <rules/findMisnamedTable.h>
#include <rules/readDocumentRules.h>
#include <rules/systemAccounts.h>
#include <util/config/JsonPositions.h>

#include <fmt/format.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
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

/// What was said of it as of an unknown key says less.
bool isMisnamed(ConfigReport& report, const DocumentPath& place, const kesa::access::RuleForm& form)
{
    auto misnamed = kesa::access::findMisnamedTable(report.root, place, form);
    if (misnamed) {
        misnamed->path = report.path(std::move(misnamed->path));
        std::erase_if(report.complaints, [&misnamed](const Complaint& complaint) {
            return complaint.path == misnamed->path && complaint.severity != Complaint::Severity::eERROR;
        });
        report.add(std::move(*misnamed));
    }
    return misnamed.has_value();
}

RulesInWords inWords(const ConfigReport& report, const std::vector<Rule>& rules, const DocumentPath& whole)
{
    std::ifstream in(report.file, std::ios::binary);
    const util::config::JsonPositions positions(std::string(std::istreambuf_iterator<char>(in), {}));
    RulesInWords words;
    for (std::size_t i = 0; i < rules.size(); ++i) {
        DocumentPath element = whole;
        element.emplace_back(i);
        words.emplace_back(fmt::format("rule {} (line {})", i + 1, positions.find(element).line),
                           rules[i].who + (rules[i].may.empty() ? " may nothing" : " " + rules[i].what));
    }
    return words;
}

/// What is no list the review of the document has complained of.
RulesReview review(ConfigReport& report, const DocumentPath& place, const kesa::access::RuleForm& form,
                   const kesa::access::RulesReader& read)
{
    RulesReview found{{}, isMisnamed(report, place, form)};
    Value list = report.root;
    for (const auto& step : place) {
        list = Value(list[std::get<std::string>(step)]);
    }
    if (!list.isArray()) {
        found.isWrong = found.isWrong || list.isDefined();
        return found;
    }
    const DocumentPath whole = report.path(place);
    Complaints complaints;
    found.words = inWords(report, read(list, whole, complaints), whole);
    for (Complaint& complaint : complaints) {
        found.isWrong = found.isWrong || complaint.severity == Complaint::Severity::eERROR;
        report.add(std::move(complaint));
    }
    return found;
}

} // namespace

RulesReview reviewPolicy(ConfigReport& report)
{
    RulesReview found = review(report, {"registry", "policy"}, kesa::access::policyForm(),
                               [](const Value& list, const DocumentPath& where, Complaints& complaints) {
                                   return kesa::registry::readPolicyRules(list, where, systemAccounts(), complaints);
                               });
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(report.file, error);
    if (!error && bytes > kesa::access::MOST_POLICY_BYTES) {
        const bool isOfRegistry = report.root["registry"].isDefined();
        found.isWrong = found.isWrong || isOfRegistry;
        report.add({isOfRegistry ? Complaint::Severity::eERROR : Complaint::Severity::eWARNING,
                    {},
                    fmt::format("kesa-registryd does not start with a document of more than {} MiB",
                                kesa::access::MOST_POLICY_BYTES >> 20U),
                    "give it one of its own, with --config"});
    }
    if (found.isWrong) {
        found.words = RulesInWords{{"policy", "none, since it is wrong: kesa-registryd does not start"}};
    }
    return found;
}

RulesReview reviewAccess(ConfigReport& report)
{
    RulesReview found = review(report, {"access"}, kesa::access::accessForm(), kesa::access::readAccessRules);
    if (found.isWrong) {
        found.words = RulesInWords{{"other users", "may nothing, since a rule is wrong"}};
    } else if (!kesa::access::readAccess(::geteuid()).problem.empty()) {
        found.isWrong = true;
        found.words = RulesInWords{{"other users", "may nothing, since the document cannot be read"}};
    }
    return found;
}

} // namespace kesactl
