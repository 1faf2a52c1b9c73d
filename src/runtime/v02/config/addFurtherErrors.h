#ifndef KESA_RUNTIME_V02_CONFIG_ADDFURTHERERRORS_H
#define KESA_RUNTIME_V02_CONFIG_ADDFURTHERERRORS_H

#include "ConfigReport.h"

namespace kesa::runtime::v02 {

/// Adds to the report of a reading, which ends with the first error, those behind it: the document is read again with
/// something good in place of what was wrong, until nothing is. Before anybody else adds to the report.
void addFurtherErrors(ConfigReport& report);

} // namespace kesa::runtime::v02

#endif
