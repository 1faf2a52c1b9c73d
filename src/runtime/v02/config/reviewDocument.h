#ifndef KESA_RUNTIME_V02_CONFIG_REVIEWDOCUMENT_H
#define KESA_RUNTIME_V02_CONFIG_REVIEWDOCUMENT_H

#include "ConfigReport.h"

namespace kesa::runtime::v02 {

/// Adds to `report` what the reader takes without a word but hardly anybody means: services and backends that stand
/// twice, paths and locators that no service can have, and what has no effect.
void reviewDocument(ConfigReport& report);

} // namespace kesa::runtime::v02

#endif
