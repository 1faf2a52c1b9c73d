#include "json_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <cstring>

namespace util::text {
namespace {

constexpr auto MUST_BE_ESCAPED = [] {
    std::array<bool, 256> table{};
    for (std::size_t c = 0; c < 0x20; ++c) {
        table[c] = true;
    }
    table['"'] = table['\\'] = true;
    return table;
}();

constexpr std::string_view SHORT_FORMS = "\"\"\\\\\bb\ff\nn\rr\tt"; // each character with its letter

/// The letter after the backslash; 0: the character has no short form.
constexpr char shortForm(char c) noexcept
{
    for (std::size_t i = 0; i < SHORT_FORMS.size(); i += 2) {
        if (SHORT_FORMS[i] == c) {
            return SHORT_FORMS[i + 1];
        }
    }
    return 0;
}

/// Not 0: one of the eight characters must be escaped.
constexpr std::uint64_t toEscape(std::uint64_t word) noexcept
{
    constexpr std::uint64_t ONES = 0x0101010101010101;
    constexpr std::uint64_t HIGH = 0x80 * ONES;
    const std::uint64_t quotes = word ^ ('"' * ONES);
    const std::uint64_t backslashes = word ^ ('\\' * ONES);
    return (((word - 0x20 * ONES) & ~word) | ((quotes - ONES) & ~quotes) | ((backslashes - ONES) & ~backslashes)) &
           HIGH;
}

std::uint64_t eightAt(const char* at) noexcept
{
    std::uint64_t word = 0;
    std::memcpy(&word, at, sizeof word);
    return word;
}

/// Eight at a time, since hardly any text has one to escape.
bool mayStandAsItIs(std::string_view value) noexcept
{
    constexpr std::size_t WORD = sizeof(std::uint64_t);
    if (value.size() < WORD) {
        return std::none_of(value.begin(), value.end(),
                            [](char c) { return MUST_BE_ESCAPED[static_cast<unsigned char>(c)]; });
    }
    const char* const last = value.data() + value.size() - WORD;
    std::uint64_t found = toEscape(eightAt(last)); // some of them twice
    for (const char* at = value.data(); at < last; at += WORD) {
        found |= toEscape(eightAt(at));
    }
    return found == 0;
}

template <class Out>
void appendEscaped(Out& out, char c)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    if (const char letter = shortForm(c); letter != 0) {
        const char escaped[] = {'\\', letter};
        out.append(std::string_view(escaped, sizeof escaped));
        return;
    }
    const auto byte = static_cast<unsigned char>(c);
    const char escaped[] = {'\\', 'u', '0', '0', DIGITS[byte >> 4], DIGITS[byte & 15]};
    out.append(std::string_view(escaped, sizeof escaped));
}

void appendQuoted(ByteBufferWriter& out, std::string_view value)
{
    unsigned char* const at = out.extend(value.size() + 2);
    at[0] = '"';
    std::copy(value.begin(), value.end(), at + 1);
    at[value.size() + 1] = '"';
}

void appendQuoted(std::string& out, std::string_view value)
{
    out.append(1, '"').append(value).append(1, '"');
}

} // namespace

template <class Out>
void appendJsonString(Out& out, std::string_view value)
{
    if (mayStandAsItIs(value)) {
        appendQuoted(out, value);
        return;
    }
    out.append(std::string_view("\""));
    std::size_t begin = 0;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (MUST_BE_ESCAPED[static_cast<unsigned char>(value[i])]) {
            out.append(value.substr(begin, i - begin));
            appendEscaped(out, value[i]);
            begin = i + 1;
        }
    }
    out.append(value.substr(begin));
    out.append(std::string_view("\""));
}

template <class Out>
void appendReal(Out& out, double value)
{
    char text[32];
    const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
    const std::string_view written(text, static_cast<std::size_t>(result.ptr - text));
    out.append(written);
    if (written.find_first_of(".en") == std::string_view::npos) {
        out.append(std::string_view(".0"));
    }
}

template void appendJsonString(std::string&, std::string_view);
template void appendJsonString(ByteBufferWriter&, std::string_view);
template void appendReal(std::string&, double);
template void appendReal(ByteBufferWriter&, double);

} // namespace util::text
