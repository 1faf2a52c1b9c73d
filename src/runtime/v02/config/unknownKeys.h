#ifndef KESA_RUNTIME_V02_CONFIG_UNKNOWNKEYS_H
#define KESA_RUNTIME_V02_CONFIG_UNKNOWNKEYS_H

#include "ConfigReport.h"

namespace kesa::runtime::v02 {

/// The beginning of each complaint of `addUnknownKeys`.
inline constexpr const char* UNKNOWN_KEY = "ignored: unknown key";

/// Adds the keys that mean nothing, but for those in "comm". One that is like a known one is probably a mistake
/// (severity 3); others may be of other software that shares the document, or notes (2).
void addUnknownKeys(ConfigReport& report);

/// Each key that means something, at its place in a document ("services[].type"); those in "comm" are its backend's.
std::vector<std::string> documentKeys();

} // namespace kesa::runtime::v02

#endif
