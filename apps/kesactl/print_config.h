#ifndef KESACTL_PRINT_CONFIG_H
#define KESACTL_PRINT_CONFIG_H

#include "CheckResult.h"

#include <string>

namespace kesactl {

/// Aligned sections for a reader, one complaint per line.
std::string asText(const CheckResult& result);
/// One JSON object on one line, without its end.
std::string asJson(const CheckResult& result);

} // namespace kesactl

#endif
