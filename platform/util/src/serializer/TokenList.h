#ifndef UTIL_SERIALIZER_TOKENLIST_H
#define UTIL_SERIALIZER_TOKENLIST_H

#include <util/serializer/IStructuredPullDeserializer.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace util::serializer {

/// One value of a document, or the name of a member, in document order.
struct Token {
    enum class Kind : std::uint8_t { eNULL, eFALSE, eTRUE, eINTEGER, eUNSIGNED, eREAL, eSTRING, eARRAY, eOBJECT };

    union {
        std::int64_t integer;
        std::uint64_t unsignedInteger; // of kind eUNSIGNED: above the largest signed one
        double real;
        const char* text;
        std::uint32_t items; // of an array or object: how many elements or members it has
    };
    std::uint32_t extent; // of a string: its length; of an array or object: the index behind its last token
    Kind kind;

    std::string_view string() const noexcept { return {text, extent}; }
};

/// A document that was read as a whole. Parsers build it value by value, in document order; it refuses what no format
/// may hold. What strings point at belongs to the parser and the bytes it reads.
///
/// Each building operation answers `true` on failure; `problem` says why.
class TokenList {
public:
    void clear() noexcept;
    /// Makes room for the values that a text of `size` bytes usually has.
    void expect(std::size_t size) { m_tokens.reserve(size / 8); }
    const Token& operator[](std::size_t index) const noexcept { return m_tokens[index]; }
    std::size_t size() const noexcept { return m_tokens.size(); }

    [[nodiscard]] bool addNull();
    [[nodiscard]] bool addBool(bool value);
    [[nodiscard]] bool addInteger(std::int64_t value);
    [[nodiscard]] bool addUnsigned(std::uint64_t value);
    [[nodiscard]] bool addReal(double value);
    [[nodiscard]] bool addString(std::string_view value); ///< a member's name or a value, by what is due
    [[nodiscard]] bool beginArray() { return begin(Token::Kind::eARRAY); }
    [[nodiscard]] bool beginObject() { return begin(Token::Kind::eOBJECT); }
    /// Ends the innermost array or object.
    [[nodiscard]] bool end();

    /// Whether the root has been read to its end.
    bool isComplete() const noexcept { return m_open.empty() && !m_tokens.empty(); }
    const char* problem() const noexcept { return m_problem; }

    /// For a parser that found a problem itself.
    [[nodiscard]] bool fail(const char* problem) noexcept
    {
        m_problem = problem;
        return true;
    }

private:
    struct Open {
        std::uint32_t index;
        std::uint32_t items;
        bool isObject;
        bool isNameDue;
    };

    [[nodiscard]] bool begin(Token::Kind kind);
    Token* add(Token::Kind kind, bool isString = false);

    std::vector<Token> m_tokens;
    std::vector<Open> m_open;
    const char* m_problem = "";
};

} // namespace util::serializer

#endif
