// kesactl: shows, checks and drives a system of Kesa processes. Each subcommand stands in a file of its name.
#include "Failure.h"
#include "check_config.h"
#include "commands.h"
#include "descriptors.h"
#include "doctor.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <common/standard_descriptors.h>
#include <kesa/ease/announceCrashes.h>
#include <tracing/Sink.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <sstream>

namespace {

using kesactl::ExitCode;
using kesactl::Failure;

const char* const FOOTER = R"(Examples:
  kesactl list '/system/**'                        the services below /system
  kesactl wait /media/player --timeout 10 && echo it is there
  kesactl call /system/cpu --follow                its values, until it ends
  kesactl call /media/player /volume --command update --body '{"percent":30}'
  kesactl ping /media/player                       how long a request takes
  kesactl ps                                       which processes are here
  kesactl status media                             what one of them is, provides and is connected to
  kesactl list --json | jq -r .path
  kesactl check-config                             what a process started here would read
  kesactl check-config kesa.json --process media   a document, as the process "media" reads it
  kesactl check-config kesa.json --json | jq .complaints
  kesactl why /media/player                        is it there, does it work, and if not, why
  kesactl may media register /media/player         whether the registry's policy lets that user, and by which rule
  kesactl may media call /media/player update      whether its provider lets that user, and by which rule
  kesactl doctor                                   why do processes not find each other?

The registry is found as any process finds it: by the configuration document, without one at
ipc://kesa-registryd/registry in the run directory: $KESA_RUN_DIR, /run/kesa, or one of this user's own. "kesactl
doctor" says which one counts, and why.

With --json an error is one JSON object on stderr: {"error":"...","exitCode":1}.
Exit codes: 0 done, 1 not found, not allowed or failed, 2 wrong arguments, 3 the registry cannot be reached,
4 timed out, 5 the output cannot be written or its reader has gone.)";

/// Before its parser reads on: that knows only that a word is not expected.
void refuseUnknownCommand(const CLI::App& app, int argc, char** argv)
{
    const std::vector<std::string> words(argv + 1, argv + argc);
    const auto first =
        std::find_if(words.begin(), words.end(), [](const auto& word) { return word.rfind('-', 0) != 0; });
    if (first != words.end()) {
        kesactl::findCommand(app, *first);
    }
}

std::string adviseHelp(const std::string& what, const CLI::App& app)
{
    const auto commands = app.get_subcommands();
    return what + "; see kesactl help" + (commands.empty() ? "" : " " + commands.front()->get_name());
}

/// An option that the command does not have: then what follows it was taken for something else, and complained of.
std::string unknownOption(const CLI::App& app)
{
    const auto commands = app.get_subcommands();
    for (const std::string& word : commands.empty() ? app.remaining() : commands.front()->remaining()) {
        if (word.rfind("--", 0) == 0 && word.size() > 2) {
            return "The following argument was not expected: " + word;
        }
    }
    return {};
}

bool isJsonWanted(int argc, char** argv)
{
    return std::any_of(argv + 1, argv + argc, [](const char* word) { return std::string_view(word) == "--json"; });
}

int run(int argc, char** argv)
{
    CLI::App app("Shows, checks and drives a system of Kesa processes.", "kesactl");
    app.set_version_flag("--version", "kesactl " KESA_VERSION);
    app.require_subcommand(1);
    app.footer("kesactl help has examples, how the registry is found, and the exit codes."); // that of each command
    int exitCode = 0;
    kesactl::addList(app);
    kesactl::addShow(app);
    kesactl::addWatch(app);
    kesactl::addWait(app);
    kesactl::addCall(app);
    kesactl::addPing(app);
    kesactl::addPs(app);
    kesactl::addStatus(app);
    kesactl::addCheckConfig(app, exitCode);
    kesactl::addDoctor(app, exitCode);
    kesactl::addWhy(app, exitCode);
    kesactl::addMay(app, exitCode);
    kesactl::addHelp(app);
    app.footer(FOOTER);
    refuseUnknownCommand(app, argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() != 0) {
            const std::string unknown = unknownOption(app);
            throw Failure{ExitCode::eUSAGE, adviseHelp(unknown.empty() ? error.what() : unknown, app)};
        }
        std::ostringstream asked; // help or version
        app.exit(error, asked, asked);
        kesactl::print(asked.str());
    }
    return exitCode;
}

} // namespace

int main(int argc, char** argv)
{
    apps::holdStandardDescriptors();
    kesa::announceCrashes();
    std::signal(SIGPIPE, SIG_IGN); // a reader that has gone is an error of the write
    if (::secure_getenv("KESA_TRACE") == nullptr) {
        tracing::setThreshold("*", 5); // what concerns the user of a tool, the tool says
    }
    try {
        kesactl::raiseDescriptorLimit();
        return run(argc, argv);
    } catch (const Failure& failure) {
        kesactl::printFailure(failure, isJsonWanted(argc, argv));
        return static_cast<int>(failure.exitCode);
    }
}
