#include "json_text.h"

#include <array>
#include <charconv>

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

template <class Out>
void appendEscaped(Out& out, char c)
{
    constexpr std::string_view DIGITS = "0123456789abcdef";
    constexpr std::string_view SHORT_FORMS = "\"\"\\\\\bb\ff\nn\rr\tt"; // each character with its letter
    for (std::size_t i = 0; i < SHORT_FORMS.size(); i += 2) {
        if (SHORT_FORMS[i] == c) {
            const char escaped[] = {'\\', SHORT_FORMS[i + 1]};
            out.append(std::string_view(escaped, sizeof escaped));
            return;
        }
    }
    const auto byte = static_cast<unsigned char>(c);
    const char escaped[] = {'\\', 'u', '0', '0', DIGITS[byte >> 4], DIGITS[byte & 15]};
    out.append(std::string_view(escaped, sizeof escaped));
}

} // namespace

template <class Out>
void appendJsonString(Out& out, std::string_view value)
{
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
