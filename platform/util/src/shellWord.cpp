#include <util/shellWord.h>

#include <algorithm>

namespace util {
namespace {

bool isPlain(char c)
{
    const bool isAscii = static_cast<unsigned char>(c) < 0x80;
    return !isAscii || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_-./:@%+=,").find(c) != std::string_view::npos;
}

} // namespace

std::string shellWord(std::string_view text)
{
    if (!text.empty() && std::all_of(text.begin(), text.end(), isPlain)) {
        return std::string(text);
    }
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') {
            word += R"('\'')";
        } else {
            word += c;
        }
    }
    return word + '\'';
}

} // namespace util
