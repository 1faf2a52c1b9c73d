#include <obr/utf8.h>

#include <cstddef>

namespace obr {

namespace {

struct Form {
    std::size_t size;
    unsigned leadBits;
    char32_t smallest; ///< smaller ones have a shorter form
};

Form formOf(unsigned char lead) noexcept
{
    if (lead >= 0xC2 && lead < 0xE0) {
        return {2, lead & 0x1Fu, 0x80};
    }
    if (lead >= 0xE0 && lead < 0xF0) {
        return {3, lead & 0x0Fu, 0x800};
    }
    if (lead >= 0xF0 && lead < 0xF5) {
        return {4, lead & 0x07u, 0x10000};
    }
    return {0, 0, 0};
}

} // namespace

char32_t takeCharacter(std::string_view& text) noexcept
{
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        text.remove_prefix(1);
        return lead;
    }
    const Form form = formOf(lead);
    char32_t character = form.leadBits;
    std::size_t used = 1;
    while (used < form.size && used < text.size() && (static_cast<unsigned char>(text[used]) & 0xC0) == 0x80) {
        character = (character << 6) | (static_cast<unsigned char>(text[used]) & 0x3Fu);
        ++used;
    }
    const bool isSurrogate = character >= 0xD800 && character < 0xE000;
    if (form.size == 0 || used < form.size || character < form.smallest || character > 0x10FFFF || isSurrogate) {
        text.remove_prefix(1);
        return INVALID_CHARACTER;
    }
    text.remove_prefix(form.size);
    return character;
}

bool isMixedUtf8(std::string_view text) noexcept
{
    while (!text.empty()) {
        std::uint64_t eight = 0;
        if (text.size() >= sizeof eight) {
            std::memcpy(&eight, text.data(), sizeof eight);
            if ((eight & 0x8080808080808080U) == 0) {
                text.remove_prefix(sizeof eight);
                continue;
            }
        }
        if (takeCharacter(text) == INVALID_CHARACTER) {
            return false;
        }
    }
    return true;
}

} // namespace obr
