#ifndef UTIL_TEXT_UTF8_H
#define UTIL_TEXT_UTF8_H

#include <cstddef>
#include <string_view>

namespace util::text {

/// Whether `text` is well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isUtf8(std::string_view text) noexcept;

} // namespace util::text

#endif
