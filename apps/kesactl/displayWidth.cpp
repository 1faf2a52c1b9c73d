// The C library knows the widths, in a locale of UTF-8 only: the one that each system has is lent to the thread that
// asks.
#include "displayWidth.h"

#include <obr/utf8.h>

#include <algorithm>
#include <clocale>
#include <cwchar>

namespace kesactl {
namespace {

constexpr char32_t FIRST_PICTOGRAPH = 0x1f000;
constexpr char32_t LAST_PICTOGRAPH = 0x1ffff;

std::size_t widthOf(char32_t character)
{
    if (character < 0x80) {
        return 1;
    }
    static const locale_t UTF8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (UTF8 == nullptr || character == obr::INVALID_CHARACTER) {
        return 1;
    }
    const locale_t users = ::uselocale(UTF8);
    const int width = ::wcwidth(static_cast<wchar_t>(character));
    ::uselocale(users);
    const bool isNewPictograph = character >= FIRST_PICTOGRAPH && character <= LAST_PICTOGRAPH;
    return width >= 0 ? static_cast<std::size_t>(width) : isNewPictograph ? 2 : 1; // below 0: not known there
}

} // namespace

std::size_t displayWidth(std::string_view text)
{
    std::size_t width = 0;
    while (!text.empty()) {
        width += widthOf(obr::takeCharacter(text));
    }
    return width;
}

std::string_view beginning(std::string_view text, std::size_t width)
{
    std::string_view rest = text;
    std::string_view after = text;
    for (std::size_t used = 0; !rest.empty(); rest = after) {
        used += widthOf(obr::takeCharacter(after));
        if (used > width) {
            break;
        }
    }
    return text.substr(0, text.size() - rest.size());
}

std::string padded(std::string_view text, std::size_t width)
{
    const std::size_t used = displayWidth(text);
    return std::string(text).append(width - std::min(used, width), ' ');
}

} // namespace kesactl
