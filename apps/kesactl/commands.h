#ifndef KESACTL_COMMANDS_H
#define KESACTL_COMMANDS_H

#include <CLI/App.hpp>

#include <string>

namespace kesactl {

// The commands but for `check-config`; each adds itself to `app`, runs inside of its parsing, and throws a `Failure`
// when it does not succeed.

void addList(CLI::App& app); ///< and `tree`: the same services, shown differently
void addShow(CLI::App& app);
void addWatch(CLI::App& app);
void addWait(CLI::App& app);
void addCall(CLI::App& app);
void addPing(CLI::App& app);
void addPs(CLI::App& app);
void addStatus(CLI::App& app);
void addHelp(CLI::App& app);
void addMay(CLI::App& app, int& exitCode); ///< it sets `exitCode` to 0 when it is allowed, else to 1
void addWhy(CLI::App& app, int& exitCode); ///< it sets `exitCode` to 0 when the service works, else to 1

/// The command of that name; a `Failure` that names the nearest when there is none.
const CLI::App& findCommand(const CLI::App& app, const std::string& name);

} // namespace kesactl

#endif
