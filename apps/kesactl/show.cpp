#include "Connection.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>

namespace kesactl {
namespace {

struct Arguments {
    std::string path;
    CommonOptions common;
};

void show(const Arguments& arguments)
{
    const System system;
    const ServiceDef service = findService(system, arguments.path, arguments.common.deadline());
    print(arguments.common.isJson ? asJson(service) + '\n' : asDetails(service));
}

} // namespace

void addShow(CLI::App& app)
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* const command = app.add_subcommand("show", "Shows all that is known of one service.");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    addCommonOptions(*command, arguments->common, "How long the registry may take to answer.");
    command->callback([arguments] { show(*arguments); });
}

} // namespace kesactl
