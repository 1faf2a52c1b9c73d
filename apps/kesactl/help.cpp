#include "Failure.h"
#include "commands.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <util/nearestName.h>

#include <algorithm>
#include <vector>

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

/// The command that is written as `name` with letters left out, as "list" is "ls" before that is a mistyped "ps".
std::string_view findShortened(const std::string& name, const std::vector<std::string_view>& commands)
{
    const auto isShort = [&name](std::string_view command) {
        std::size_t next = 0;
        for (const char c : command) {
            next += next < name.size() && name[next] == c ? 1U : 0U;
        }
        return next == name.size() && name.size() > 1 && command.front() == name.front();
    };
    const auto found = std::find_if(commands.begin(), commands.end(), isShort);
    return found == commands.end() ? std::string_view() : *found;
}

} // namespace

const CLI::App& findCommand(const CLI::App& app, const std::string& name)
{
    for (const CLI::App* const command : app.get_subcommands(nullptr)) {
        if (command->get_name() == name) {
            return *command;
        }
    }
    const std::vector<std::string_view> names = commandNames(app);
    const std::string_view shortened = findShortened(name, names);
    const std::string_view meant = shortened.empty() ? util::nearestName(name, names) : shortened;
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
