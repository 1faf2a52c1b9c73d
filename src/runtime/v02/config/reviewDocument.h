#ifndef KESA_RUNTIME_V02_CONFIG_REVIEWDOCUMENT_H
#define KESA_RUNTIME_V02_CONFIG_REVIEWDOCUMENT_H

#include "ConfigReport.h"

namespace kesa::runtime::v02 {

/// Adds to `report` the errors behind the first one, and what the reader takes without a word but hardly anybody means:
/// keys, services and backends that stand twice, paths and locators that no service can have, and what has no effect
/// (severity 3); keys that mean nothing (severity 2), with the known one that is most like them.
void reviewDocument(ConfigReport& report);

/// Each key that means something, at its place in a document ("services[].type"); those in "comm" are its backend's.
std::vector<std::string> documentKeys();

} // namespace kesa::runtime::v02

#endif
