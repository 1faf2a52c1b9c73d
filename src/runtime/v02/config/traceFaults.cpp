#include "traceFaults.h"

#include "advice.h"
#include "unknownKeys.h"

#include <kesa/tracing.h>

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

/// The reader's own trace says all of the others: that a default counts, or what is wrong with a text of any length.
bool needsPlace(const ConfigReport::Complaint& complaint)
{
    return !complaint.path.empty() &&
           (complaint.isFatal || !adviceFor(complaint.text).empty() || complaint.text.rfind(UNKNOWN_KEY, 0) == 0);
}

} // namespace

void traceFaults(const ConfigReport& report, const std::string& source, bool hasFailed)
{
    std::size_t count = 0;
    for (const ConfigReport::Complaint& complaint : report.complaints) {
        if (complaint.severity >= 3 && needsPlace(complaint) && ++count <= MOST_TRACED) {
            KESA_TRACE_TEXT(channel(), complaint.severity, "[configuration] " + sentenceOf(complaint, source));
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
            text.append("; \"kesactl check-config ").append(report.file).append("\" lists what is wrong with it");
        }
        traceFault(source, text);
    }
}

void traceFault(const std::string& source, const std::string& text)
{
    KESA_TRACE_TEXT(channel(), 4, fmt::format("[configuration] {}: {}", source, text));
}

} // namespace kesa::runtime::v02
