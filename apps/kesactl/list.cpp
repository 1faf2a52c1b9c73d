#include "Failure.h"
#include "System.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"

#include <CLI/CLI.hpp>

namespace kesactl {
namespace {

struct Arguments {
    std::string glob = "**";
    CommonOptions common;
};

Services find(const Arguments& arguments)
{
    const System system;
    Services services = system.view(arguments.glob)->list(arguments.common.deadline());
    if (services.empty()) {
        throw Failure{ExitCode::eFAILED, "no service matches '" + arguments.glob + "'; kesactl list shows all"};
    }
    return services;
}

void add(CLI::App& app, const char* name, const char* description, std::string (*show)(const Services&))
{
    auto arguments = std::make_shared<Arguments>();
    CLI::App* const command = app.add_subcommand(name, description);
    command->add_option("GLOB", arguments->glob, "Of paths: '/system/**', '/media/*'; without it all.")
        ->check(checkGlob)
        ->type_name("");
    addCommonOptions(*command, arguments->common, "How long the registry may take to answer.");
    command->callback([arguments, show] {
        const Services services = find(*arguments);
        if (arguments->common.isJson) {
            print(services, true);
        } else {
            print(show(services));
        }
    });
}

} // namespace

void addList(CLI::App& app)
{
    add(app, "list", "Lists the services.", asTable);
    add(app, "tree", "Shows the services as a tree of their paths; as JSON, the same lines as list.", asTree);
}

} // namespace kesactl
