#include "traceFaults.h"

#include <kesa/tracing.h>
#include <rules/RuleForm.h>
#include <rules/findMisnamedTable.h>
#include <util/shellWord.h>

#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

namespace kesa::runtime::v02 {
namespace {

/// A document that is something else altogether is not told key by key.
constexpr std::size_t MOST_TRACED = 10;

const Channel& channel()
{
    static const Channel instance("KESA_UTIL_CONFIG");
    return instance;
}

/// The reader's own trace says all of the others, such as that a default counts.
bool isTold(const Complaint& complaint)
{
    return complaint.severity == Severity::eERROR ||
           (complaint.severity == Severity::eWARNING && !complaint.path.empty() && !complaint.advice.empty());
}

/// Where rules stand under another key. Who reads rules takes that for an error, and says so.
std::vector<util::config::DocumentPath> findMisnamedRules(const ConfigReport& report)
{
    std::vector<util::config::DocumentPath> found;
    const auto find = [&](const util::config::DocumentPath& place, const access::RuleForm& form) {
        if (auto misnamed = access::findMisnamedTable(report.root, place, form)) {
            found.push_back(report.path(std::move(misnamed->path)));
        }
    };
    if (!report.file.empty()) { // rules are read from a file only
        find({"access"}, access::accessForm());
        find({"registry", "policy"}, access::policyForm());
    }
    return found;
}

} // namespace

void traceFaults(const ConfigReport& report, const std::string& source, bool hasFailed)
{
    const std::vector<util::config::DocumentPath> ofRules = findMisnamedRules(report);
    std::size_t count = 0;
    for (const Complaint& complaint : report.complaints) {
        const bool isOfRules = std::find(ofRules.begin(), ofRules.end(), complaint.path) != ofRules.end();
        if (isTold(complaint) && !isOfRules && ++count <= MOST_TRACED) {
            KESA_TRACE_TEXT(channel(), static_cast<int>(complaint.severity),
                            "[configuration] " + complaint.sentence(source));
        }
    }
    if (count > MOST_TRACED) {
        KESA_TRACE_TEXT(channel(), 3,
                        fmt::format("[configuration] {}: {} more like these", source, count - MOST_TRACED));
    }
    if (report.isMissing) {
        KESA_TRACE_TEXT(channel(), 3,
                        "[configuration] with the defaults this process finds no other process; give initInstance "
                        "KesaRuntime::WITH_REGISTRYD, or write a document such as /etc/kesa/kesa.json");
    } else if (hasFailed) {
        std::string text = "it does not count; with the defaults, which do, this process finds no other process";
        if (!report.file.empty()) {
            text.append("; kesactl check-config ")
                .append(util::shellWord(report.file))
                .append(" lists what is wrong with it");
        }
        traceFault(source, text);
    }
}

void traceFault(const std::string& source, const std::string& text)
{
    KESA_TRACE_TEXT(channel(), 4, fmt::format("[configuration] {}: {}", source, text));
}

} // namespace kesa::runtime::v02
