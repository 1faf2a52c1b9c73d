#include "traceFaults.h"

#include <kesa/tracing.h>
#include <util/shellWord.h>

#include <fmt/format.h>

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

} // namespace

void traceFaults(const ConfigReport& report, const std::string& source, bool hasFailed)
{
    std::size_t count = 0;
    for (const Complaint& complaint : report.complaints) {
        if (isTold(complaint) && ++count <= MOST_TRACED) {
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
