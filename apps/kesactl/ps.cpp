#include "ProcessReport.h"
#include "commands.h"
#include "options.h"
#include "output.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

namespace kesactl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

/// What keeps a process from answering stands before its program, where a narrow terminal still shows it.
std::vector<std::string> rowOf(const ProcessReport& report)
{
    return {report.name,
            report.processId(),
            report.user(),
            asLocalTime(report.started(), true),
            report.number("serviceCount"),
            report.number("connectionCount"),
            report.number("queuedBytes"),
            report.note.empty() ? report.executable() : fmt::format("({}) {}", report.note, report.executable())};
}

void printProcesses(const CommonOptions& options)
{
    Rows rows = {{"NAME", "PID", "USER", "SINCE", "SERVICES", "CONNECTIONS", "QUEUED", "EXECUTABLE"}};
    std::string lines;
    for (const ProcessReport& report : lookAtProcesses(findRunDirectory(), "", options.deadline())) {
        rows.push_back(rowOf(report));
        lines += report.asJson() + '\n';
    }
    print(options.isJson ? lines : fitted(aligned(rows)));
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
