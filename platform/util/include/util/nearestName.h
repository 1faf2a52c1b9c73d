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

/// How many characters have to be inserted, removed or replaced to make one of the other; letter case, '_' and '-' do
/// not count. Takes time by the product of their sizes.
KESA_API std::size_t nameDistance(std::string_view one, std::string_view other);

/// From which distance on a name is not near to this one any more.
KESA_API std::size_t leastFarDistance(std::string_view name);

} // namespace util

#endif
