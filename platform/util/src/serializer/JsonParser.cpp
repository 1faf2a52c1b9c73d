// The one unit that knows RapidJSON. The document is copied and its strings are decoded in that copy, so that none of
// them is allocated; positions in error texts are counted in the original.
#include "IDocumentParser.h"

#ifdef __SSE2__
#define RAPIDJSON_SSE2
#endif
#define RAPIDJSON_NAMESPACE kesa_rapidjson
#define RAPIDJSON_NAMESPACE_BEGIN namespace kesa_rapidjson {
#define RAPIDJSON_NAMESPACE_END }
#include <rapidjson/reader.h>

#include <fmt/format.h>
#include <obr/utf8.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <vector>

namespace util::serializer {
namespace {

namespace json = ::kesa_rapidjson;

/// Vector instructions read up to 15 bytes behind the end.
constexpr std::size_t PADDING = 16;

/// The power of ten of the first digit that is not 0, or something of its sign when it is very large.
std::ptrdiff_t magnitude(std::string_view number)
{
    constexpr std::ptrdiff_t VERY_LARGE = 1'000'000'000'000;
    const std::size_t exponentMark = std::min(number.find_first_of("eE"), number.size());
    const std::string_view mantissa = number.substr(0, exponentMark);
    const std::size_t point = std::min(mantissa.find('.'), mantissa.size());
    const std::size_t first = std::min(mantissa.find_first_of("123456789"), mantissa.size());
    std::ptrdiff_t exponent = 0;
    if (exponentMark < number.size()) {
        const std::size_t begin = exponentMark + (number[exponentMark + 1] == '+' ? 2 : 1);
        if (std::from_chars(number.data() + begin, number.data() + number.size(), exponent).ec != std::errc()) {
            exponent = number[begin] == '-' ? -VERY_LARGE : VERY_LARGE;
        }
    }
    return std::clamp(exponent, -VERY_LARGE, VERY_LARGE) + static_cast<std::ptrdiff_t>(point) -
           static_cast<std::ptrdiff_t>(first);
}

/// RapidJSON's own conversion is undefined for a zero with a large negative exponent.
[[nodiscard]] bool addNumber(TokenList& tokens, std::string_view number)
{
    const char* const end = number.data() + number.size();
    if (number.find_first_of(".eE") == std::string_view::npos) {
        std::int64_t integer = 0;
        if (std::from_chars(number.data(), end, integer).ec == std::errc()) {
            return tokens.addInteger(integer);
        }
        std::uint64_t unsignedInteger = 0;
        if (std::from_chars(number.data(), end, unsignedInteger).ec == std::errc()) {
            return tokens.addUnsigned(unsignedInteger);
        }
    }
    double real = 0;
    if (std::from_chars(number.data(), end, real).ec == std::errc::result_out_of_range) {
        if (magnitude(number) > 0) {
            return tokens.fail("the number has no value: the largest is 1.8e308");
        }
        real = number.front() == '-' ? -0.0 : 0.0; // too small
    }
    return tokens.addReal(real);
}

/// The events of the reader. They answer whether to go on.
class Handler {
public:
    explicit Handler(TokenList& tokens) noexcept : m_tokens(tokens) {}

    bool Null() { return !m_tokens.addNull(); }
    bool Bool(bool value) { return !m_tokens.addBool(value); }
    bool RawNumber(const char* text, json::SizeType size, bool) { return !addNumber(m_tokens, {text, size}); }
    // Numbers come as `RawNumber`.
    bool Int(int) { return false; }
    bool Uint(unsigned) { return false; }
    bool Int64(std::int64_t) { return false; }
    bool Uint64(std::uint64_t) { return false; }
    bool Double(double) { return false; }
    bool String(const char* text, json::SizeType size, bool) { return !m_tokens.addString({text, size}); }
    bool Key(const char* text, json::SizeType size, bool) { return !m_tokens.addString({text, size}); }
    bool StartObject() { return !m_tokens.beginObject(); }
    bool EndObject(json::SizeType) { return !m_tokens.end(); }
    bool StartArray() { return !m_tokens.beginArray(); }
    bool EndArray(json::SizeType) { return !m_tokens.end(); }

private:
    TokenList& m_tokens;
};

/// The last character before `offset` that is no white space.
char lastBefore(std::string_view document, std::size_t offset)
{
    const std::size_t place = document.substr(0, offset).find_last_not_of(" \t\r\n");
    return place != std::string_view::npos ? document[place] : '\0';
}

/// Another one than UTF-8, else empty. With a byte order mark or without: JSON begins with a character of ASCII, which
/// has zero bytes there.
std::string_view foreignEncoding(std::string_view document)
{
    using namespace std::string_view_literals;
    const std::string_view four = document.substr(0, 4);
    const std::string_view two = document.substr(0, 2);
    if (four == "\xff\xfe\0\0"sv || four == "\0\0\xfe\xff"sv ||
        (four.size() == 4 && (four.substr(0, 3) == "\0\0\0"sv) != (four.substr(1) == "\0\0\0"sv))) {
        return "UTF-32";
    }
    const bool isUtf16 =
        two == "\xff\xfe" || two == "\xfe\xff" || (two.size() == 2 && (two[0] == '\0') != (two[1] == '\0'));
    return isUtf16 ? "UTF-16" : "";
}

/// Of the first byte that belongs to no character of UTF-8; the size when there is none.
std::size_t findNoUtf8(std::string_view document)
{
    std::string_view rest = document;
    while (!rest.empty()) {
        const std::size_t offset = document.size() - rest.size();
        if (obr::takeCharacter(rest) == obr::INVALID_CHARACTER) {
            return offset;
        }
    }
    return document.size();
}

std::string explainMisplaced(std::string_view document, std::size_t offset, const char* expected)
{
    const char c = document[offset];
    if (lastBefore(document, offset) == ',' && (c == '}' || c == ']')) {
        return fmt::format("a comma must not stand before '{}'", c);
    }
    if (c == '/' || c == '#') {
        return "comments are not allowed";
    }
    if (c == '\'') {
        return "strings and names stand in double quotes, not in single ones";
    }
    if (document.substr(offset).starts_with("\xef\xbb\xbf")) {
        return "a byte order mark is not allowed; save the file without it";
    }
    if (c == '\0') {
        return "a NUL byte is not allowed";
    }
    return expected;
}

std::string explain(json::ParseErrorCode code, std::string_view document, std::size_t offset, const TokenList& tokens)
{
    if (code == json::kParseErrorTermination) {
        return tokens.problem();
    }
    if (code == json::kParseErrorDocumentEmpty && offset >= document.size()) {
        return "the document is empty";
    }
    if (offset >= document.size()) {
        return "the document ends too early; a quotation mark or bracket is not closed";
    }
    switch (code) {
    case json::kParseErrorDocumentRootNotSingular:
        return "unexpected text after the end of the document";
    case json::kParseErrorObjectMissName:
        return explainMisplaced(document, offset, "expected a name in double quotes");
    case json::kParseErrorObjectMissColon:
        return explainMisplaced(document, offset, "expected ':' after the name");
    case json::kParseErrorObjectMissCommaOrCurlyBracket:
        return explainMisplaced(document, offset, "expected ',' or '}'");
    case json::kParseErrorArrayMissCommaOrSquareBracket:
        return explainMisplaced(document, offset, "expected ',' or ']'");
    case json::kParseErrorStringUnicodeEscapeInvalidHex:
        return "'\\u' is not followed by four hexadecimal digits";
    case json::kParseErrorStringUnicodeSurrogateInvalid:
        return "'\\u' names half a character (surrogate)";
    case json::kParseErrorStringEscapeInvalid:
        return document[offset] == '\\' ? "unknown escape after '\\'"
                                        : "a control character in a string is not escaped";
    case json::kParseErrorStringMissQuotationMark:
        return "a NUL byte in a string is not escaped";
    case json::kParseErrorNumberTooBig:
        return "the number has no value: the largest is 1.8e308";
    case json::kParseErrorNumberMissFraction:
        return "expected a digit after the decimal point";
    case json::kParseErrorNumberMissExponent:
        return "expected a digit in the exponent";
    default:
        return explainMisplaced(document, offset, "expected a value");
    }
}

Problem problemAt(std::string_view document, std::size_t offset, std::string what)
{
    const std::string_view before = document.substr(0, offset);
    const auto lineStart = static_cast<std::ptrdiff_t>(before.rfind('\n') + 1); // 0 when there is none
    const auto isFirstByte = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; };
    return {std::move(what), static_cast<int>(1 + std::count(before.begin(), before.end(), '\n')),
            static_cast<int>(1 + std::count_if(before.begin() + lineStart, before.end(), isFirstByte))};
}

Problem explainAt(std::string_view document, const json::ParseResult& result, const TokenList& tokens)
{
    const std::size_t offset = result.Offset();
    if (const std::string_view encoding = foreignEncoding(document); !encoding.empty()) {
        return problemAt(document, offset, fmt::format("the text is {}; save it as UTF-8", encoding));
    }
    if (const std::size_t foreign = findNoUtf8(document); foreign < document.size() && foreign <= offset) {
        Problem problem = problemAt(document, foreign, "the text is not valid UTF-8");
        problem.advice = "save the file as UTF-8";
        return problem;
    }
    return problemAt(document, offset, explain(result.Code(), document, offset, tokens));
}

class JsonParser final : public IDocumentParser {
public:
    bool parse(std::string_view document, TokenList& tokens, Problem& problem) override
    {
        if (document.size() >= std::numeric_limits<json::SizeType>::max()) {
            problem.what = "the document is too large";
            return true;
        }
        tokens.expect(document.size());
        m_text.reserve(document.size() + PADDING);
        m_text.assign(document.begin(), document.end());
        m_text.resize(document.size() + PADDING, '\0');
        json::InsituStringStream stream(m_text.data());
        Handler handler(tokens);
        constexpr unsigned FLAGS =
            json::kParseInsituFlag | json::kParseIterativeFlag | json::kParseNumbersAsStringsFlag;
        const json::ParseResult result = m_reader.Parse<FLAGS>(stream, handler);
        if (result.IsError()) {
            problem = explainAt(document, result, tokens);
            return true;
        }
        if (stream.Tell() != document.size()) { // it stops at the first NUL byte
            problem = problemAt(document, stream.Tell(), "a NUL byte is not allowed");
            return true;
        }
        return false;
    }

private:
    json::Reader m_reader;
    std::vector<char> m_text;
};

} // namespace

std::unique_ptr<IDocumentParser> makeJsonParser()
{
    return std::make_unique<JsonParser>();
}

} // namespace util::serializer
