#ifndef KESACTL_DOCTOR_H
#define KESACTL_DOCTOR_H

#include <CLI/App.hpp>

namespace kesactl {

/// Adds `doctor`. It sets `exitCode` to 0 when nothing is wrong, else to 1.
void addDoctor(CLI::App& app, int& exitCode);

} // namespace kesactl

#endif
