#include "reviewPolicy.h"

#include <policy/readRules.h>
#include <policy/systemAccounts.h>
#include <util/config/JsonPositions.h>

#include <fmt/format.h>

#include <fstream>
#include <iterator>

namespace kesactl {

using kesa::registry::Rule;

std::vector<std::pair<std::string, std::string>> reviewPolicy(kesa::runtime::v02::ConfigReport& report)
{
    std::vector<std::pair<std::string, std::string>> words;
    const util::config::Value& policy = report.root["registry"]["policy"];
    if (!policy.isArray()) { // else the reading of the document has said so
        return words;
    }
    const util::config::DocumentPath place = report.path({"registry", "policy"});
    std::vector<util::config::Complaint> complaints;
    const std::vector<Rule> rules =
        kesa::registry::readRules(policy, place, kesa::registry::systemAccounts(), complaints);
    for (util::config::Complaint& complaint : complaints) {
        report.add(std::move(complaint));
    }
    std::ifstream in(report.file, std::ios::binary);
    const util::config::JsonPositions positions(std::string(std::istreambuf_iterator<char>(in), {}));
    for (std::size_t i = 0; i < rules.size(); ++i) {
        util::config::DocumentPath element = place;
        element.emplace_back(i);
        words.emplace_back(fmt::format("rule {} (line {})", i + 1, positions.find(element).line),
                           rules[i].who + (rules[i].what.empty() ? " may nothing" : " " + rules[i].what));
    }
    return words;
}

} // namespace kesactl
