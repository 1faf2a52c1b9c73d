#include "ProcessReport.h"
#include "commands.h"
#include "options.h"
#include "output.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

namespace kesactl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

/// What keeps a process from answering stands before its program. `isShort`: for a narrow terminal.
std::vector<std::string> rowOf(const ProcessReport& report, bool isShort)
{
    const std::string path = report.executable();
    const std::string program = isShort ? path.substr(path.rfind('/') + 1) : path;
    const std::string noted = isShort ? fmt::format("({})", report.note) : fmt::format("({}) {}", report.note, path);
    return {report.plainName(),
            report.processId(),
            report.user(),
            asLocalTime(report.started(), true),
            report.number("serviceCount"),
            report.number("connectionCount"),
            report.number("queuedBytes"),
            report.note.empty() ? program : noted};
}

std::string asProcessTable(const std::vector<ProcessReport>& reports, bool isShort)
{
    Rows rows = {{"NAME", "PID", "USER", "SINCE", "SERVICES", "PEERS", "QUEUED", "EXECUTABLE"}};
    for (const ProcessReport& report : reports) {
        rows.push_back(rowOf(report, isShort));
    }
    return aligned(rows);
}

void printProcesses(const CommonOptions& options)
{
    const auto reports = lookAtProcesses(findRunDirectory(), options.deadline());
    std::string lines;
    for (const ProcessReport& report : reports) {
        lines += report.asJson() + '\n';
    }
    const std::string table = asProcessTable(reports, false);
    print(options.isJson ? lines : fits(table) ? table : fitted(asProcessTable(reports, true)));
}

} // namespace

void addPs(CLI::App& app)
{
    auto options = std::make_shared<CommonOptions>();
    CLI::App* const command =
        app.add_subcommand("ps", "Lists the processes that have a name in the run directory; needs no registry.");
    addCommonOptions(*command, *options, "How long each process may take to answer; all are asked at once.");
    command->callback([options] { printProcesses(*options); });
}

} // namespace kesactl
