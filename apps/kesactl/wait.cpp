#include "Failure.h"
#include "System.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>

#include <fmt/format.h>

#include <optional>

namespace kesactl {
namespace {

struct WaitArguments {
    std::string glob;
    bool isGone = false;
    CommonOptions common{30};
};

void wait(const WaitArguments& arguments)
{
    const System system;
    RegistryView::Answer answer;
    const auto view = system.view(arguments.glob);
    std::optional<ReaderWatch> reader;
    if (!arguments.isGone) { // which prints nothing
        reader.emplace([&view = *view] { view.interrupt(); });
    }
    if (!view->waitFor(arguments.isGone, arguments.common.deadline(), answer)) {
        if (arguments.isGone && answer.services.empty()) {
            RegistryView::failUnsettled();
        }
        const std::string what = arguments.isGone ? fmt::format("still there: {}", answer.services.begin()->first)
                                                  : "no service matches '" + arguments.glob + "'";
        throw Failure{ExitCode::eTIMED_OUT, fmt::format("{} after {} s{}", what, arguments.common.timeoutSeconds,
                                                        arguments.isGone ? "" : adviseWhy(arguments.glob))};
    }
    if (!arguments.isGone) {
        print(arguments.common.isJson ? asJsonLines(answer.services) : fitted(asTable(answer.services)));
    }
}

} // namespace

void addWait(CLI::App& app)
{
    auto arguments = std::make_shared<WaitArguments>();
    CLI::App* const command = app.add_subcommand("wait", "Waits until a service is there, and prints it.");
    command->add_option("PATH|GLOB", arguments->glob, "Of the service, or of any of several.")
        ->required()
        ->check(checkGlob)
        ->type_name("");
    command->add_flag("--gone", arguments->isGone, "Waits until there is none.");
    addCommonOptions(*command, arguments->common, "How long; also for the registry.");
    command->callback([arguments] { wait(*arguments); });
}

} // namespace kesactl
