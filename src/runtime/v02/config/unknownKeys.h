#ifndef KESA_RUNTIME_V02_CONFIG_UNKNOWNKEYS_H
#define KESA_RUNTIME_V02_CONFIG_UNKNOWNKEYS_H

#include <string>
#include <vector>

namespace kesa::runtime::v02 {

class ConfigNode;

/// Complains of the keys that mean nothing, but for those in "comm". One that is like a known one is probably a
/// mistake, a warning; others may be of other software that shares the document, or notes.
void addUnknownKeys(const ConfigNode& root);

/// Each key that means something, at its place in a document ("services[].type"); those in "comm" are its backend's.
std::vector<std::string> documentKeys();

} // namespace kesa::runtime::v02

#endif
