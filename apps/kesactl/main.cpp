// kesactl: shows, checks and drives a system of Kesa processes. Each subcommand stands in a file of its name.
#include "check_config.h"

#include <CLI/CLI.hpp>

namespace {

constexpr int USAGE_ERROR = 2;

const char* const EXAMPLES = R"(Examples:
  kesactl check-config                             what a process started here would read
  kesactl check-config kesa.json --process media   a document, as the process "media" reads it
  kesactl check-config kesa.json --json | jq .complaints)";

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Shows and checks a system of Kesa processes.", "kesactl");
    app.set_version_flag("--version", "kesactl " KESA_VERSION);
    app.require_subcommand(1);
    app.footer(EXAMPLES);
    int exitCode = 0;
    kesactl::addCheckConfig(app, exitCode);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : USAGE_ERROR; // 0: help or version was asked for
    }
    return exitCode;
}
