#include "utf8.h"

#include <cstdint>
#include <cstring>

namespace util::text {
namespace {

/// The length of the multi-byte sequence at the start of `rest`, 0 if it is malformed.
std::size_t sequenceLength(std::string_view rest) noexcept
{
    const auto byte = [&rest](std::size_t i) { return static_cast<unsigned char>(rest[i]); };
    const unsigned char lead = byte(0);
    const std::size_t length = lead >= 0xc2 && lead <= 0xdf ? 2
                               : (lead & 0xf0) == 0xe0      ? 3
                               : (lead & 0xf8) == 0xf0      ? 4
                                                            : 0;
    if (length == 0 || rest.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    const bool isOverlong = (lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xf0 && byte(1) < 0x90);
    const bool isSurrogate = lead == 0xed && byte(1) >= 0xa0;
    const bool isTooLarge = lead > 0xf4 || (lead == 0xf4 && byte(1) >= 0x90);
    return isOverlong || isSurrogate || isTooLarge ? 0 : length;
}

} // namespace

bool isUtf8(std::string_view text) noexcept
{
    while (!text.empty()) {
        std::uint64_t word = 0;
        if (text.size() >= sizeof word) {
            std::memcpy(&word, text.data(), sizeof word);
            if ((word & 0x8080808080808080U) == 0) {
                text.remove_prefix(sizeof word);
                continue;
            }
        }
        if (static_cast<unsigned char>(text.front()) < 0x80) {
            text.remove_prefix(1);
            continue;
        }
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

} // namespace util::text
