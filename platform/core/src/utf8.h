#ifndef KESA_CORE_UTF8_H
#define KESA_CORE_UTF8_H

#include <string_view>

namespace kesa::utf8 {

/// What `takeCharacter` answers for a byte that belongs to no well-formed character.
inline constexpr char32_t INVALID = 0xFFFFFFFF;

/// Takes the first character off `text`, which is not empty; one byte of it when that is not well-formed UTF-8.
char32_t takeCharacter(std::string_view& text) noexcept;

bool isValid(std::string_view text) noexcept;

} // namespace kesa::utf8

#endif
