#include "PullReader.h"

#include <obr/ErrorOutput.h>
#include <obr/errors.h>

#include <fmt/format.h>

#include <utility>

namespace util::serializer {
namespace {

using Kind = IStructuredPullDeserializer::Kind;

Kind kindOf(const Token& token)
{
    switch (token.kind) {
    case Token::Kind::eNULL:
        return Kind::eNULL;
    case Token::Kind::eFALSE:
    case Token::Kind::eTRUE:
        return Kind::eBOOL;
    case Token::Kind::eINTEGER:
    case Token::Kind::eUNSIGNED:
        return Kind::eINTEGER;
    case Token::Kind::eREAL:
        return Kind::eREAL;
    case Token::Kind::eSTRING:
        return Kind::eSTRING;
    case Token::Kind::eARRAY:
        return Kind::eARRAY;
    case Token::Kind::eOBJECT:
        break;
    }
    return Kind::eOBJECT;
}

const char* nameOf(Kind kind)
{
    switch (kind) {
    case Kind::eNULL:
        return "null";
    case Kind::eBOOL:
        return "a bool";
    case Kind::eINTEGER:
        return "an integer";
    case Kind::eREAL:
        return "a real number";
    case Kind::eSTRING:
        return "a string";
    case Kind::eARRAY:
        return "an array";
    case Kind::eOBJECT:
        break;
    }
    return "an object";
}

} // namespace

IStructuredPullDeserializer::~IStructuredPullDeserializer() = default;

PullReader::PullReader(std::unique_ptr<IDocumentParser> parser) noexcept : m_parser(std::move(parser)) {}

bool PullReader::fail(std::string_view problem) const
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, problem);
}

/// "member 'x': " for the innermost member that is being read.
std::string PullReader::describePlace() const
{
    for (auto open = m_open.rbegin(); open != m_open.rend(); ++open) {
        if (open->name != 0) {
            return fmt::format("member '{}': ", m_tokens[open->name].string());
        }
    }
    return "";
}

bool PullReader::failType(const char* expected) const
{
    return fail(fmt::format("{}expected {}, found {}", describePlace(), expected, nameOf(kindOf(m_tokens[m_next]))));
}

bool PullReader::attach(ByteBufferReader& in)
{
    m_tokens.clear();
    m_open.clear();
    m_next = 0;
    Problem problem;
    if (m_parser->parse(in.text(), m_tokens, problem)) {
        m_tokens.clear();
        return fail(problem.toText());
    }
    m_open.push_back({Place::eROOT, Due::eVALUE, 0, static_cast<std::uint32_t>(m_tokens.size()), 0});
    return false;
}

/// The value that comes next; null, with an error, when none may be read now.
const Token* PullReader::due() const
{
    if (m_open.empty()) {
        fail("there is no document to read");
        return nullptr;
    }
    if (m_open.back().due != Due::eVALUE) {
        fail("a value may not be read here: begin a member or an element first");
        return nullptr;
    }
    return &m_tokens[m_next];
}

const Token* PullReader::due(Kind kind, const char* expected) const
{
    const Token* const token = due();
    if (token != nullptr && kindOf(*token) != kind) {
        failType(expected);
        return nullptr;
    }
    return token;
}

/// Goes behind a value that was read.
void PullReader::taken() noexcept
{
    ++m_next;
    m_open.back().due = Due::eITEM_END;
}

bool PullReader::begin(Place place)
{
    const bool isObject = place == Place::eOBJECT;
    const Token* const token = due(isObject ? Kind::eOBJECT : Kind::eARRAY, isObject ? "an object" : "an array");
    if (token == nullptr) {
        return true;
    }
    taken();
    m_open.push_back({place, Due::eITEM_OR_END, 0, token->extent, token->items});
    return false;
}

bool PullReader::mayEnd(Place place) const
{
    return !m_open.empty() && m_open.back().place == place && m_open.back().due == Due::eITEM_OR_END;
}

bool PullReader::atEnd(Place place, const char* problem) const
{
    if (!mayEnd(place)) {
        fail(problem);
        return false;
    }
    return m_next == m_open.back().end;
}

bool PullReader::endItem(Place place, const char* problem)
{
    if (m_open.empty() || m_open.back().place != place || m_open.back().due != Due::eITEM_END) {
        return fail(problem);
    }
    m_open.back().due = Due::eITEM_OR_END;
    return false;
}

bool PullReader::end(Place place, const char* problem)
{
    if (!mayEnd(place) || m_next != m_open.back().end) {
        return fail(problem);
    }
    m_open.pop_back();
    return false;
}

bool PullReader::beginObject()
{
    return begin(Place::eOBJECT);
}

bool PullReader::atObjectEnd()
{
    return atEnd(Place::eOBJECT, "the end of an object may be asked for only in an object, between members");
}

template <class Text>
bool PullReader::readName(Text& name)
{
    if (!mayEnd(Place::eOBJECT) || m_next == m_open.back().end) {
        return fail("no member follows here");
    }
    name = m_tokens[m_next].string();
    m_open.back().name = static_cast<std::uint32_t>(m_next);
    m_open.back().due = Due::eVALUE;
    ++m_next;
    return false;
}

bool PullReader::memberName(std::string& name)
{
    return readName(name);
}

bool PullReader::memberNameView(std::string_view& name)
{
    return readName(name);
}

bool PullReader::skipValue()
{
    const Token* const token = due();
    if (token == nullptr) {
        return true;
    }
    const bool isContainer = token->kind == Token::Kind::eARRAY || token->kind == Token::Kind::eOBJECT;
    const std::size_t behind = isContainer ? token->extent : m_next + 1;
    taken();
    m_next = behind;
    return false;
}

bool PullReader::endMember()
{
    return endItem(Place::eOBJECT, "a member ends only in an object, after its value");
}

bool PullReader::endObject()
{
    return end(Place::eOBJECT, "an object ends only after its last member");
}

bool PullReader::beginArray()
{
    return begin(Place::eARRAY);
}

bool PullReader::atArrayEnd()
{
    return atEnd(Place::eARRAY, "the end of an array may be asked for only in an array, between elements");
}

bool PullReader::beginElement()
{
    if (!mayEnd(Place::eARRAY) || m_next == m_open.back().end) {
        return fail("no element follows here");
    }
    m_open.back().due = Due::eVALUE;
    return false;
}

bool PullReader::endElement()
{
    return endItem(Place::eARRAY, "an element ends only in an array, after its value");
}

bool PullReader::endArray()
{
    return end(Place::eARRAY, "an array ends only after its last element");
}

std::size_t PullReader::itemCount() const noexcept
{
    return m_open.empty() ? 0 : m_open.back().items;
}

bool PullReader::peek(Kind& kind)
{
    const Token* const token = due();
    if (token == nullptr) {
        return true;
    }
    kind = kindOf(*token);
    return false;
}

bool PullReader::nullValue()
{
    if (due(Kind::eNULL, "null") == nullptr) {
        return true;
    }
    taken();
    return false;
}

template <class Text>
bool PullReader::readString(Text& value)
{
    const Token* const token = due(Kind::eSTRING, "a string");
    if (token == nullptr) {
        return true;
    }
    value = token->string();
    taken();
    return false;
}

bool PullReader::stringValue(std::string& value)
{
    return readString(value);
}

bool PullReader::stringView(std::string_view& value)
{
    return readString(value);
}

bool PullReader::boolValue(bool& value)
{
    const Token* const token = due(Kind::eBOOL, "a bool");
    if (token == nullptr) {
        return true;
    }
    value = token->kind == Token::Kind::eTRUE;
    taken();
    return false;
}

bool PullReader::intValue(std::int64_t& value)
{
    const Token* const token = due(Kind::eINTEGER, "an integer");
    if (token == nullptr) {
        return true;
    }
    if (token->kind == Token::Kind::eUNSIGNED) {
        return fail(fmt::format("{}{} is too large", describePlace(), token->unsignedInteger));
    }
    value = token->integer;
    taken();
    return false;
}

bool PullReader::uintValue(std::uint64_t& value)
{
    const Token* const token = due(Kind::eINTEGER, "an integer");
    if (token == nullptr) {
        return true;
    }
    if (token->kind == Token::Kind::eINTEGER && token->integer < 0) {
        return fail(fmt::format("{}{} is negative", describePlace(), token->integer));
    }
    value = token->kind == Token::Kind::eUNSIGNED ? token->unsignedInteger : static_cast<std::uint64_t>(token->integer);
    taken();
    return false;
}

bool PullReader::doubleValue(double& value)
{
    const Token* const token = due();
    if (token == nullptr) {
        return true;
    }
    switch (token->kind) {
    case Token::Kind::eREAL:
        value = token->real;
        break;
    case Token::Kind::eINTEGER:
        value = static_cast<double>(token->integer);
        break;
    case Token::Kind::eUNSIGNED:
        value = static_cast<double>(token->unsignedInteger);
        break;
    default:
        return failType("a number");
    }
    taken();
    return false;
}

bool PullReader::finish()
{
    if (m_open.size() != 1 || m_open.back().due != Due::eITEM_END) {
        return fail(m_open.empty() ? "there is no document to read" : "the document has not been read to its end");
    }
    return false;
}

} // namespace util::serializer
