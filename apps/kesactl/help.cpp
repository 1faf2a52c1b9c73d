#include "Failure.h"
#include "commands.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <util/nearestName.h>

namespace kesactl {
namespace {

std::vector<std::string_view> commandNames(const CLI::App& app)
{
    std::vector<std::string_view> names;
    for (const CLI::App* const command : app.get_subcommands(nullptr)) {
        names.emplace_back(command->get_name());
    }
    return names;
}

} // namespace

const CLI::App& findCommand(const CLI::App& app, const std::string& name)
{
    for (const CLI::App* const command : app.get_subcommands(nullptr)) {
        if (command->get_name() == name) {
            return *command;
        }
    }
    const std::string_view meant = util::nearestName(name, commandNames(app));
    throw Failure{ExitCode::eUSAGE,
                  "unknown command '" + name + "'; " +
                      (meant.empty() ? "kesactl help names all" : "did you mean '" + std::string(meant) + "'?")};
}

void addHelp(CLI::App& app)
{
    auto name = std::make_shared<std::string>();
    CLI::App* const help = app.add_subcommand("help", "Explains a command, or names all.");
    help->add_option("COMMAND", *name, "Without it, all of them.")->type_name("");
    help->callback([&app, name] {
        // Not `CLI::App::help`, which explains the command that was given: this one.
        const auto formatter = app.get_formatter();
        print(name->empty() ? formatter->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal)
                            : formatter->make_help(&findCommand(app, *name), app.get_name() + " " + *name,
                                                   CLI::AppFormatMode::Normal));
    });
}

} // namespace kesactl
