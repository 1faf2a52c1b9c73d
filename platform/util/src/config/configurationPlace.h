#ifndef UTIL_CONFIG_CONFIGURATIONPLACE_H
#define UTIL_CONFIG_CONFIGURATIONPLACE_H

namespace util::config {

/// The folder and the name under which every process finds its documents.
inline constexpr const char* CONFIGURATION_NAME = "kesa";
inline constexpr const char* CONFIGURATION_PATH = "./config";

} // namespace util::config

#endif
