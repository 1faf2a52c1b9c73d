#include "TokenList.h"

#include <obr/utf8.h>
#include <util/serializer/formats.h>

#include <cmath>
#include <limits>

namespace util::serializer {

static_assert(sizeof(Token) == 16, "a token is made for each value of a document");

void TokenList::clear() noexcept
{
    m_tokens.clear();
    m_open.clear();
    m_problem = "";
}

/// Null when the value may not stand here.
Token* TokenList::add(Token::Kind kind, bool isString)
{
    if (!m_open.empty()) {
        Open& open = m_open.back();
        if (open.isNameDue && !isString) {
            m_problem = "the name of a member is no string";
            return nullptr;
        }
        open.isNameDue = open.isObject && !open.isNameDue;
        open.items += open.isNameDue ? 0 : 1; // a member counts with its name
    } else if (!m_tokens.empty()) {
        m_problem = "unexpected data after the end of the document";
        return nullptr;
    }
    if (m_tokens.size() >= std::numeric_limits<std::uint32_t>::max()) {
        m_problem = "the document has too many values";
        return nullptr;
    }
    Token& token = m_tokens.emplace_back();
    token.kind = kind;
    return &token;
}

bool TokenList::addNull()
{
    return add(Token::Kind::eNULL) == nullptr;
}

bool TokenList::addBool(bool value)
{
    return add(value ? Token::Kind::eTRUE : Token::Kind::eFALSE) == nullptr;
}

bool TokenList::addInteger(std::int64_t value)
{
    Token* const token = add(Token::Kind::eINTEGER);
    if (token == nullptr) {
        return true;
    }
    token->integer = value;
    return false;
}

bool TokenList::addUnsigned(std::uint64_t value)
{
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return addInteger(static_cast<std::int64_t>(value));
    }
    Token* const token = add(Token::Kind::eUNSIGNED);
    if (token == nullptr) {
        return true;
    }
    token->unsignedInteger = value;
    return false;
}

bool TokenList::addReal(double value)
{
    if (!std::isfinite(value)) {
        return fail("a number is not finite");
    }
    Token* const token = add(Token::Kind::eREAL);
    if (token == nullptr) {
        return true;
    }
    token->real = value;
    return false;
}

bool TokenList::addString(std::string_view value)
{
    if (value.size() > std::numeric_limits<std::uint32_t>::max()) {
        return fail("a string is too long");
    }
    if (!obr::isUtf8(value)) {
        return fail("a string is not valid UTF-8");
    }
    Token* const token = add(Token::Kind::eSTRING, true);
    if (token == nullptr) {
        return true;
    }
    token->text = value.data();
    token->extent = static_cast<std::uint32_t>(value.size());
    return false;
}

bool TokenList::begin(Token::Kind kind)
{
    if (m_open.size() >= MAX_DEPTH) {
        return fail("arrays and objects are nested too deeply (at most 128)");
    }
    if (add(kind) == nullptr) {
        return true;
    }
    const bool isObject = kind == Token::Kind::eOBJECT;
    m_open.push_back({static_cast<std::uint32_t>(m_tokens.size() - 1), 0, isObject, isObject});
    return false;
}

bool TokenList::end()
{
    if (m_open.empty()) {
        return fail("an end without a beginning");
    }
    const Open open = m_open.back();
    if (open.isObject && !open.isNameDue) {
        return fail("a member has no value");
    }
    m_open.pop_back();
    m_tokens[open.index].items = open.items;
    m_tokens[open.index].extent = static_cast<std::uint32_t>(m_tokens.size());
    return false;
}

} // namespace util::serializer
