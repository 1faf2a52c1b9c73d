#ifndef KESA_RUNTIME_V02_GETPEXVERSION_H
#define KESA_RUNTIME_V02_GETPEXVERSION_H

#include <kesa/optional.h>
#include <obr/api.h>

#include <string>
#include <vector>

namespace kesa::runtime::v02 {

/// The interface versions declared for a service, from `interfaces.json` beside the configuration; absent when the
/// service is not declared. One leading '/' makes no difference.
KESA_API optional<std::vector<std::string>> getPexVersion(const std::string& servicePath);

} // namespace kesa::runtime::v02

#endif
