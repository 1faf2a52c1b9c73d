#ifndef KESACTL_CHECK_CONFIG_H
#define KESACTL_CHECK_CONFIG_H

#include <CLI/App.hpp>

namespace kesactl {

/// Adds `check-config [FILE] [--json] [--process NAME]`. It sets `exitCode` to 0 when the document is valid, else to 1.
void addCheckConfig(CLI::App& app, int& exitCode);

} // namespace kesactl

#endif
