#ifndef UTIL_NEARESTNAME_H
#define UTIL_NEARESTNAME_H

#include <obr/api.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace util {

/// In bytes; a longer name is near to none.
inline constexpr std::size_t LONGEST_NEAR_NAME = 64;

/// Which of `known` may have been meant by `name`, a mistyped key, word or path: one of them, with its own characters.
/// Empty when none is near.
KESA_API std::string_view nearestName(std::string_view name, const std::vector<std::string_view>& known);

} // namespace util

#endif
