#include "rules/readDocumentRules.h"

#include "rules/findMisnamedTable.h"

#include <obr/ErrorStorage.h>
#include <util/config/JsonPositions.h>
#include <util/config/Provider.h>
#include <util/config/findDocument.h>

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

namespace kesa::access {

using util::config::Complaint;
using util::config::DocumentPath;
using util::config::JsonPositions;
using util::config::Provider;
using util::config::Value;

namespace {

// As every process finds its document.
constexpr const char* DOCUMENT_NAME = "kesa";
constexpr const char* DOCUMENT_PATH = "./config";

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

/// Beside the member "kesa" it would be none.
std::optional<Complaint> findPassedOver(const Value& document, const DocumentPath& place)
{
    const auto& top = std::get<std::string>(place.front());
    return document[top.c_str()].isDefined()
               ? std::optional(Complaint{Complaint::Severity::eERROR,
                                         {top},
                                         fmt::format("beside \"{}\" nobody reads it", DOCUMENT_NAME),
                                         fmt::format("move it into \"{}\"", DOCUMENT_NAME)})
               : std::nullopt;
}

/// Others who are told of the file are not where this process was started.
std::string absolute(const std::string& file)
{
    std::error_code failed;
    const std::string path = std::filesystem::absolute(file, failed).string();
    return failed ? file : path;
}

/// Before it is read.
std::string complaintAboutSize(const RuleForm& form)
{
    const std::string file = absolute(util::config::findDocument(DOCUMENT_NAME, DOCUMENT_PATH));
    std::error_code error;
    const std::uintmax_t bytes = std::filesystem::file_size(file, error);
    return form.mostDocumentBytes == 0 || error || bytes <= form.mostDocumentBytes
               ? std::string()
               : fmt::format("{}: has {} bytes, and a document that may have {} has {} at most; make it smaller", file,
                             bytes, form.name, form.mostDocumentBytes);
}

} // namespace

DocumentRules readDocumentRules(const DocumentPath& place, const RuleForm& form, const RulesReader& read)
{
    DocumentRules found;
    if (!Provider::isConfigured(DOCUMENT_NAME, DOCUMENT_PATH)) {
        return found;
    }
    if (std::string tooLarge = complaintAboutSize(form); !tooLarge.empty()) {
        found.problem = std::move(tooLarge);
        return found;
    }
    const Provider provider(DOCUMENT_NAME, DOCUMENT_PATH, 0, util::config::LoadStrategy::eFIRST_FOUND);
    found.file = absolute(provider.file());
    if (provider.hasFailed()) {
        found.problem = obr::ErrorStorage::takeReason();
        if (found.problem.starts_with(provider.file())) {
            found.problem.replace(0, provider.file().size(), found.file);
        }
        return found;
    }
    const bool isMember = provider.first().isDefined();
    DocumentPath whole = isMember ? DocumentPath{DOCUMENT_NAME} : DocumentPath{};
    const Value root = isMember ? provider.first() : provider.second();
    Value list = root;
    for (const auto& step : place) {
        list = Value(list[std::get<std::string>(step).c_str()]);
        whole.push_back(step);
    }
    std::vector<Complaint> complaints;
    if (!list.isDefined()) {
        if (auto misnamed = findMisnamedTable(root, place, form)) {
            misnamed->path.insert(misnamed->path.begin(), whole.begin(),
                                  whole.end() - static_cast<std::ptrdiff_t>(place.size()));
            complaints.push_back(std::move(*misnamed));
        } else if (auto passedOver = isMember ? findPassedOver(provider.second(), place) : std::nullopt) {
            complaints.push_back(std::move(*passedOver));
        } else {
            return found;
        }
    }
    std::vector<Rule> rules = read(list, whole, complaints);
    const JsonPositions positions(provider.text());
    found.problem = sort(std::move(complaints), found.file, positions, found.warnings);
    if (!found.problem.empty()) {
        return found;
    }
    for (std::size_t i = 0; i < rules.size(); ++i) {
        DocumentPath element = whole;
        element.emplace_back(i);
        const int line = positions.find(element).line;
        rules[i].place = line > 0 ? fmt::format("{}:{}", found.file, line) : found.file;
    }
    found.rules = std::move(rules);
    return found;
}

} // namespace kesa::access
