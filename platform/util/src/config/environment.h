#ifndef UTIL_CONFIG_ENVIRONMENT_H
#define UTIL_CONFIG_ENVIRONMENT_H

#include <string>

namespace util::config {

/// The variable's text; empty when it is unset, or when the process has more rights than who started it.
std::string environment(const std::string& name);

/// The folder and the name under which every process finds its documents.
inline constexpr const char* CONFIGURATION_NAME = "kesa";
inline constexpr const char* CONFIGURATION_PATH = "./config";

} // namespace util::config

#endif
