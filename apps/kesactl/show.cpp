#include "ServiceConnection.h"
#include "commands.h"
#include "options.h"
#include "output.h"
#include "print_services.h"
#include "registryPolicy.h"
#include "resources.h"

#include <CLI/CLI.hpp>

namespace kesactl {
namespace {

using util::config::Value;

struct ShowArguments {
    std::string path;
    bool wantsResources = false;
    CommonOptions common;
};

void show(const ShowArguments& arguments)
{
    const comm::TimeNs deadline = arguments.common.deadline();
    const System system(false);
    const ServiceDef service = findService(system, arguments.path, deadline);
    if (arguments.wantsResources) {
        ServiceConnection connection(service);
        printResources(connection.client(deadline), arguments.path, arguments.common, deadline);
        return;
    }
    if (arguments.common.isJson) {
        print(asJson(service) + '\n');
        return;
    }
    const Value policy =
        system.registry() == nullptr ? Value() : askPolicy(*system.registry(), arguments.common.laterDeadline());
    print(asDetails(service, seenBy(service, policy)));
}

} // namespace

void addShow(CLI::App& app)
{
    auto arguments = std::make_shared<ShowArguments>();
    CLI::App* const command = app.add_subcommand("show", "Shows all that is known of one service.");
    command->add_option("PATH", arguments->path, "Of the service.")->required()->check(checkPath)->type_name("");
    command->add_flag("--resources", arguments->wantsResources,
                      "Asks it for its resources, and shows these; as JSON with the schemas of body and answer.");
    addCommonOptions(*command, arguments->common, "How long the registry and the service may take to answer.");
    command->callback([arguments] { show(*arguments); });
}

} // namespace kesactl
