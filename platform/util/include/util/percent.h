#ifndef UTIL_PERCENT_H
#define UTIL_PERCENT_H

#include <obr/api.h>

#include <optional>
#include <string>
#include <string_view>

namespace util {

/// Letters and digits stay as they are, and the characters of `kept`; other bytes become '%' and two hexadecimal
/// digits.
KESA_API std::string encodePercent(std::string_view text, std::string_view kept);

/// Nothing when a '%' is not followed by two hexadecimal digits.
KESA_API std::optional<std::string> decodePercent(std::string_view text);

} // namespace util

#endif
