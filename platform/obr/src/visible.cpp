#include <fmt/format.h>
#include <obr/utf8.h>
#include <obr/visible.h>

#include <iterator>

namespace obr {
namespace {

/// Those of C0 and C1, the separators of lines, those that turn or mark the direction of writing, and what is not seen
/// and joins nothing: two names that look the same are not.
bool isControl(char32_t character)
{
    return character < 0x20 || (character >= 0x7f && character < 0xa0) || character == 0xad || character == 0x061c ||
           character == 0x200b || character == 0x200e || character == 0x200f ||
           (character >= 0x2028 && character <= 0x202e) || (character >= 0x2060 && character <= 0x206f) ||
           character == 0xfeff || (character >= 0xe0000 && character <= 0xe007f);
}

std::string visibleBut(std::string_view text, std::string_view kept)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::string_view rest = text;
        const char32_t character = takeCharacter(text);
        if (character == INVALID_CHARACTER) {
            result += "\uFFFD";
        } else if (isControl(character) && kept.find(rest.front()) == std::string_view::npos) {
            fmt::format_to(std::back_inserter(result), "\\u{:04x}", static_cast<unsigned>(character));
        } else {
            result.append(rest.substr(0, rest.size() - text.size()));
        }
    }
    return result;
}

} // namespace

std::string visible(std::string_view text)
{
    return visibleBut(text, {});
}

std::string glimpse(std::string_view text)
{
    constexpr std::size_t MOST = 200;
    if (text.size() <= MOST) {
        return visible(text);
    }
    std::size_t end = MOST;
    while (end > MOST - 4 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80) {
        --end; // inside of a character
    }
    return visible(text.substr(0, end)) + "...";
}

std::string visibleLines(std::string_view text)
{
    return visibleBut(text, "\n\t");
}

} // namespace obr
