#include "parseDocument.h"

#include "src/serializer/IDocumentParser.h"

#include <util/config/Dictionary.h>

#include <algorithm>
#include <utility>

namespace util::config {
namespace {

using serializer::Token;
using serializer::TokenList;

/// Makes values of tokens. The depth of a document is limited, and so is the recursion.
class Builder {
public:
    Builder(const TokenList& tokens, std::vector<Complaint>& complaints) noexcept
        : m_tokens(tokens), m_complaints(complaints)
    {}

    /// The next value, which stands at `place`.
    Value build(const Place& place)
    {
        const Token& token = m_tokens[m_next++];
        switch (token.kind) {
        case Token::Kind::eNULL:
            return nullptr;
        case Token::Kind::eFALSE:
            return false;
        case Token::Kind::eTRUE:
            return true;
        case Token::Kind::eINTEGER:
            return token.integer;
        case Token::Kind::eUNSIGNED:
            return token.unsignedInteger;
        case Token::Kind::eREAL:
            return token.real;
        case Token::Kind::eSTRING:
            return token.string();
        case Token::Kind::eARRAY:
            return buildArray(token.extent, place);
        case Token::Kind::eOBJECT:
            break;
        }
        return buildDictionary(token.extent, place);
    }

private:
    Value buildArray(std::size_t end, const Place& place)
    {
        Value::Array items;
        while (m_next < end) {
            items.push_back(build(Place::element(place, items.size())));
        }
        return items;
    }

    Value buildDictionary(std::size_t end, const Place& place)
    {
        std::vector<Value::Member> members;
        while (m_next < end) {
            const std::string_view key = m_tokens[m_next++].string();
            members.emplace_back(key, build(Place::member(place, key)));
        }
        noteDuplicates(members, place);
        return Dictionary(std::move(members));
    }

    void noteDuplicates(const std::vector<Value::Member>& members, const Place& place)
    {
        std::vector<std::string_view> keys;
        keys.reserve(members.size());
        for (const Value::Member& member : members) {
            keys.push_back(member.first);
        }
        std::stable_sort(keys.begin(), keys.end()); // `std::sort` falls back to a slow way with keys that count up
        for (std::size_t i = 1; i < keys.size(); ++i) {
            if (keys[i] == keys[i - 1] && (i == 1 || keys[i - 2] != keys[i])) {
                m_complaints.push_back({Complaint::Severity::eWARNING, Place::member(place, keys[i]).path(),
                                        "the key stands more than once; the last one counts", "remove the others"});
            }
        }
    }

    const TokenList& m_tokens;
    std::vector<Complaint>& m_complaints;
    std::size_t m_next = 0;
};

} // namespace

bool parseDocument(std::string_view text, Value& out, std::vector<Complaint>& complaints)
{
    TokenList tokens;
    serializer::Problem problem;
    const std::unique_ptr<serializer::IDocumentParser> parser = serializer::makeJsonParser(); // has the tokens' texts
    if (parser->parse(text, tokens, problem)) {
        complaints.push_back(
            {Complaint::Severity::eERROR, {}, std::move(problem.what), problem.advice, problem.line, problem.column});
        return true;
    }
    out = Builder(tokens, complaints).build(Place());
    return false;
}

} // namespace util::config
