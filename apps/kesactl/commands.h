#ifndef KESACTL_COMMANDS_H
#define KESACTL_COMMANDS_H

#include <CLI/App.hpp>

namespace kesactl {

// The commands against a running system; each adds itself to `app`, runs inside of its parsing, and throws a `Failure`
// when it does not succeed.

void addList(CLI::App& app); ///< and `tree`: the same services, shown differently
void addShow(CLI::App& app);
void addWatch(CLI::App& app);
void addWait(CLI::App& app);
void addCall(CLI::App& app);

} // namespace kesactl

#endif
