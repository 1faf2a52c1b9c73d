#include "policy/readPolicy.h"

#include "policy/readRules.h"
#include "policy/systemAccounts.h"

#include <obr/ErrorStorage.h>
#include <util/config/JsonPositions.h>
#include <util/config/Provider.h>

#include <fstream>
#include <iterator>
#include <utility>

namespace kesa::registry {

using util::config::Complaint;
using util::config::DocumentPath;
using util::config::JsonPositions;
using util::config::Provider;
using util::config::Value;

namespace {

// As every process finds its document.
constexpr const char* DOCUMENT_NAME = "kesa";
constexpr const char* DOCUMENT_PATH = "./config";

std::string textOf(const std::string& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Answers the first error.
std::string sort(std::vector<Complaint> complaints, const std::string& file, const JsonPositions& positions,
                 std::vector<std::string>& warnings)
{
    std::string error;
    for (Complaint& complaint : complaints) {
        const auto [line, column] = positions.find(complaint.path);
        complaint.line = line;
        complaint.column = column;
        if (complaint.severity == Complaint::Severity::eWARNING) {
            warnings.push_back(complaint.sentence(file));
        } else if (complaint.severity == Complaint::Severity::eERROR && error.empty()) {
            error = complaint.sentence(file);
        }
    }
    return error;
}

} // namespace

ReadPolicy readPolicy(std::int64_t ownUid)
{
    ReadPolicy read;
    if (!Provider::isConfigured(DOCUMENT_NAME, DOCUMENT_PATH)) {
        read.policy = std::make_shared<Policy>(ownUid, &systemAccounts());
        return read;
    }
    const Provider provider(DOCUMENT_NAME, DOCUMENT_PATH, 0, util::config::LoadStrategy::eFIRST_FOUND);
    if (provider.hasFailed()) {
        read.problem = obr::ErrorStorage::takeReason();
        return read;
    }
    const bool isMember = provider.first().isDefined();
    const Value& policy = (isMember ? provider.first() : provider.second())["registry"]["policy"];
    if (!policy.isDefined()) {
        read.policy = std::make_shared<Policy>(ownUid, &systemAccounts());
        return read;
    }
    const DocumentPath place =
        isMember ? DocumentPath{DOCUMENT_NAME, "registry", "policy"} : DocumentPath{"registry", "policy"};
    std::vector<Complaint> complaints;
    std::vector<Rule> rules = readRules(policy, place, systemAccounts(), complaints);
    const JsonPositions positions(textOf(provider.file()));
    read.problem = sort(std::move(complaints), provider.file(), positions, read.warnings);
    if (!read.problem.empty()) {
        return read;
    }
    for (std::size_t i = 0; i < rules.size(); ++i) {
        DocumentPath element = place;
        element.emplace_back(i);
        rules[i].line = positions.find(element).line;
    }
    read.policy = std::make_shared<Policy>(ownUid, std::move(rules), provider.file(), systemAccounts());
    return read;
}

} // namespace kesa::registry
