#ifndef KESA_RUNTIME_V02_CONFIG_UNKNOWNKEYS_H
#define KESA_RUNTIME_V02_CONFIG_UNKNOWNKEYS_H

#include <string>
#include <string_view>
#include <vector>

namespace kesa::runtime::v02 {

class ConfigNode;

/// Complains of the keys that have no effect. One that belongs elsewhere or is like a known one is probably a mistake,
/// a warning; others may be of other software that shares the document, or notes: a hint. A document whose whole
/// content stands under the wrong key, or one level too deep, does not count: an error, though its reading does not
/// fail. In "comm" only those that belong elsewhere: the backend says of the others. Of the known ones, locators of a
/// registry that is not asked.
void addUnknownKeys(const ConfigNode& root);

/// Whether the key, when it stands in "comm", is one of those.
bool isMisplacedInComm(std::string_view key);

/// Each key that means something, at its place in a document ("services[].type"); those in "comm" are its backend's.
std::vector<std::string> documentKeys();

} // namespace kesa::runtime::v02

#endif
