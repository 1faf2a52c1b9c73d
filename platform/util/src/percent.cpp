#include <util/percent.h>

namespace util {

namespace {

constexpr std::string_view HEX = "0123456789ABCDEF";

bool isLetterOrDigit(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int hexValue(char c) noexcept
{
    const auto found = HEX.find(c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c);
    return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

} // namespace

std::string encodePercent(std::string_view text, std::string_view kept)
{
    std::string encoded;
    for (const char c : text) {
        if (isLetterOrDigit(c) || kept.find(c) != std::string_view::npos) {
            encoded.push_back(c);
        } else {
            const auto byte = static_cast<unsigned char>(c);
            encoded.append({'%', HEX[byte >> 4U], HEX[byte & 15U]});
        }
    }
    return encoded;
}

std::optional<std::string> decodePercent(std::string_view text)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded.push_back(text[i]);
            continue;
        }
        const int high = text.size() - i < 3 ? -1 : hexValue(text[i + 1]);
        const int low = high < 0 ? -1 : hexValue(text[i + 2]);
        if (low < 0) {
            return std::nullopt;
        }
        decoded.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return decoded;
}

} // namespace util
