#ifndef OBR_UTF8_H
#define OBR_UTF8_H

#include <obr/api.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace obr {

/// What `takeCharacter` answers for a byte that belongs to no well-formed character.
inline constexpr char32_t INVALID_CHARACTER = 0xFFFFFFFF;

/// Takes the first character off `text`, which is not empty; one byte of it when that is not well-formed UTF-8.
KESA_API char32_t takeCharacter(std::string_view& text) noexcept;

/// `isUtf8` of text that is not ASCII alone.
KESA_API bool isMixedUtf8(std::string_view text) noexcept;

/// Whether `text` is well-formed UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
inline bool isUtf8(std::string_view text) noexcept
{
    std::uint64_t bits = 0;
    if (std::uint64_t eight = 0; text.size() < sizeof eight) {
        for (const char c : text) {
            bits |= static_cast<unsigned char>(c);
        }
    } else {
        const char* const last = text.data() + text.size() - sizeof eight; // some of its bytes are looked at twice
        for (const char* at = text.data(); at < last; at += sizeof eight) {
            std::memcpy(&eight, at, sizeof eight);
            bits |= eight;
        }
        std::memcpy(&eight, last, sizeof eight);
        bits |= eight;
    }
    return (bits & 0x8080808080808080U) == 0 || isMixedUtf8(text);
}

} // namespace obr

#endif
