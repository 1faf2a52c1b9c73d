#ifndef KESA_RUNTIME_V02_CONFIG_NEARESTNAME_H
#define KESA_RUNTIME_V02_CONFIG_NEARESTNAME_H

#include <string_view>
#include <vector>

namespace kesa::runtime::v02 {

/// Which of `known` may have been meant by `name`, a mistyped key or word; empty when none is near.
std::string_view nearestName(std::string_view name, const std::vector<std::string_view>& known);

} // namespace kesa::runtime::v02

#endif
