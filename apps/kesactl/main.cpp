// kesactl: shows, checks and drives a system of Kesa processes. Each subcommand stands in a file of its name.
#include "Failure.h"
#include "check_config.h"
#include "commands.h"
#include "output.h"

#include <CLI/CLI.hpp>
#include <common/standard_descriptors.h>

#include <csignal>
#include <cstdio>
#include <sstream>

namespace {

using kesactl::ExitCode;

const char* const FOOTER = R"(Examples:
  kesactl list '/system/**'                        the services below /system
  kesactl wait /media/player --timeout 10 && echo it is there
  kesactl call /system/cpu --follow                its values, until it ends
  kesactl call /media/player /volume --command update --body '{"percent":30}'
  kesactl list --json | jq -r .path
  kesactl check-config                             what a process started here would read
  kesactl check-config kesa.json --process media   a document, as the process "media" reads it
  kesactl check-config kesa.json --json | jq .complaints

The registry is found as any process finds it: by the configuration document, without one at
ipc://kesa-registryd/registry in the run directory ($KESA_RUN_DIR, $XDG_RUNTIME_DIR/kesa or /run/kesa).

Exit codes: 0 done, 1 not found or failed, 2 wrong arguments, 3 the registry cannot be reached, 4 timed out,
5 the output cannot be written or its reader has gone.)";

int run(int argc, char** argv)
{
    CLI::App app("Shows, checks and drives a system of Kesa processes.", "kesactl");
    app.set_version_flag("--version", "kesactl " KESA_VERSION);
    app.require_subcommand(1);
    app.footer(FOOTER);
    int exitCode = 0;
    kesactl::addList(app);
    kesactl::addShow(app);
    kesactl::addWatch(app);
    kesactl::addWait(app);
    kesactl::addCall(app);
    kesactl::addCheckConfig(app, exitCode);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream asked; // help or version
        if (app.exit(error, asked, std::cerr) != 0) {
            return static_cast<int>(ExitCode::eUSAGE);
        }
        kesactl::print(asked.str());
    }
    return exitCode;
}

} // namespace

int main(int argc, char** argv)
{
    apps::holdStandardDescriptors();
    std::signal(SIGPIPE, SIG_IGN); // a reader that has gone is an error of the write
    try {
        return run(argc, argv);
    } catch (const kesactl::Failure& failure) {
        if (!failure.text.empty()) {
            std::fprintf(stderr, "kesactl: %s\n", failure.text.c_str());
        }
        return static_cast<int>(failure.exitCode);
    }
}
