#include "IDocumentParser.h"
#include "IEncoder.h"

#include <util/cbor.h>

#include <fmt/format.h>

#include <limits>
#include <vector>

namespace util::serializer {
namespace {

using cbor::Major;
using cbor::Reader;

/// Decodes one document. Operations answer `true` on failure; the list of tokens says why.
class Decoder {
public:
    Decoder(std::string_view document, TokenList& tokens, std::vector<std::uint64_t>& open,
            std::string& chunks) noexcept
        : m_begin(reinterpret_cast<const unsigned char*>(document.data())), m_size(document.size()),
          m_reader(m_begin, m_size), m_tokens(tokens), m_open(open), m_chunks(chunks)
    {
        m_open.clear();
        m_chunks.clear();
    }

    [[nodiscard]] bool decode()
    {
        while (!m_reader.atEnd()) {
            m_offset = position();
            if (m_reader.atBreak() ? end() : next()) {
                return true;
            }
        }
        m_offset = m_size;
        return !m_tokens.isComplete() && m_tokens.fail(TOO_EARLY);
    }

    /// Where what is wrong begins.
    std::size_t offset() const noexcept { return m_offset; }

private:
    static constexpr std::uint64_t INDEFINITE = std::numeric_limits<std::uint64_t>::max();
    static constexpr const char* TOO_EARLY = "the document ends too early";

    std::size_t position() const noexcept { return static_cast<std::size_t>(m_reader.position() - m_begin); }

    [[nodiscard]] bool next()
    {
        Reader::Item item;
        if (m_reader.item(item)) {
            return m_tokens.fail(m_reader.why());
        }
        switch (item.major) {
        case Major::eUNSIGNED:
            return value(m_tokens.addUnsigned(item.argument));
        case Major::eNEGATIVE:
            return value(m_tokens.addInteger(-1 - static_cast<std::int64_t>(item.argument)));
        case Major::eTEXT:
            return text(item);
        case Major::eARRAY:
            return m_tokens.beginArray() || begin(item, 1);
        case Major::eMAP:
            return m_tokens.beginObject() || begin(item, 2);
        case Major::eSIMPLE:
            return value(simple(item));
        case Major::eBYTES:
        case Major::eTAG: // is passed over
            break;
        }
        return m_tokens.fail("binary data is not supported");
    }
    [[nodiscard]] bool simple(const Reader::Item& item)
    {
        constexpr unsigned FALSE_VALUE = 20;
        constexpr unsigned NULL_VALUE = 22;
        if (item.info > NULL_VALUE) {
            return m_tokens.addReal(Reader::real(item));
        }
        return item.info == NULL_VALUE ? m_tokens.addNull() : m_tokens.addBool(item.info != FALSE_VALUE);
    }
    /// After each whole value, which may be the last of what is open.
    [[nodiscard]] bool value(bool failed)
    {
        while (!failed && !m_open.empty() && m_open.back() != INDEFINITE && --m_open.back() == 0) {
            m_open.pop_back();
            failed = m_tokens.end();
        }
        return failed;
    }
    [[nodiscard]] bool begin(const Reader::Item& item, std::uint64_t itemsEach)
    {
        if (item.isIndefinite) {
            m_open.push_back(INDEFINITE);
            return false;
        }
        // Each item has at least one byte: a larger number is a lie, found before it is believed.
        if (item.argument > (m_size - position()) / itemsEach) {
            return m_tokens.fail(TOO_EARLY);
        }
        if (item.argument == 0) {
            return value(m_tokens.end());
        }
        m_open.push_back(item.argument * itemsEach);
        return false;
    }
    [[nodiscard]] bool text(const Reader::Item& item)
    {
        std::string_view content;
        if (item.isIndefinite) {
            return chunks(content) || value(m_tokens.addString(content));
        }
        return m_reader.string(item, content) ? m_tokens.fail(m_reader.why()) : value(m_tokens.addString(content));
    }
    /// The chunks of a text, put together.
    [[nodiscard]] bool chunks(std::string_view& content)
    {
        m_chunks.reserve(m_size); // never moves: earlier strings point into it
        const std::size_t begin = m_chunks.size();
        for (std::string_view chunk; !m_reader.atBreak(); m_chunks.append(chunk)) {
            m_offset = position();
            if (m_reader.atEnd()) {
                return m_tokens.fail(TOO_EARLY);
            }
            if (static_cast<Major>(*m_reader.position() >> 5U) != Major::eTEXT) {
                return m_tokens.fail("a text consists of something else than text");
            }
            Reader::Item item;
            if (m_reader.item(item) || m_reader.string(item, chunk)) {
                return m_tokens.fail(m_reader.why());
            }
        }
        content = std::string_view(m_chunks).substr(begin);
        return false;
    }
    [[nodiscard]] bool end()
    {
        if (m_open.empty() || m_open.back() != INDEFINITE) {
            return m_tokens.fail("an end without a beginning");
        }
        m_open.pop_back();
        return value(m_tokens.end());
    }

    const unsigned char* const m_begin;
    const std::size_t m_size;
    Reader m_reader;
    TokenList& m_tokens;
    std::vector<std::uint64_t>& m_open; // per array or map that is open, the items still to come
    std::string& m_chunks;              // texts that come in chunks, put together
    std::size_t m_offset = 0;
};

class QelbinParser final : public IDocumentParser {
public:
    bool parse(std::string_view document, TokenList& tokens, Problem& problem) override
    {
        if (document.empty()) {
            problem.what = "the document is empty";
            return true;
        }
        Decoder decoder(document, tokens, m_open, m_chunks);
        if (decoder.decode()) {
            problem.what = fmt::format("byte {}: {}", decoder.offset(), tokens.problem());
            return true;
        }
        return false;
    }

private:
    std::vector<std::uint64_t> m_open;
    std::string m_chunks;
};

class QelbinEncoder final : public IEncoder {
public:
    void beginObject(ByteBufferWriter& out) const override { cbor::putByte(out, cbor::INDEFINITE_MAP); }
    void memberName(ByteBufferWriter& out, std::string_view name, bool) const override { cbor::putText(out, name); }
    void endObject(ByteBufferWriter& out, std::size_t, std::size_t) const override { cbor::putByte(out, cbor::BREAK); }
    void beginArray(ByteBufferWriter& out) const override { cbor::putByte(out, cbor::INDEFINITE_ARRAY); }
    void beginElement(ByteBufferWriter&, bool) const override {}
    void endArray(ByteBufferWriter& out, std::size_t, std::size_t) const override { cbor::putByte(out, cbor::BREAK); }

    void nullValue(ByteBufferWriter& out) const override { cbor::putByte(out, cbor::NULL_ITEM); }
    void boolValue(ByteBufferWriter& out, bool value) const override
    {
        cbor::putByte(out, value ? cbor::TRUE_ITEM : cbor::FALSE_ITEM);
    }
    void intValue(ByteBufferWriter& out, std::int64_t value) const override { cbor::putInteger(out, value); }
    void uintValue(ByteBufferWriter& out, std::uint64_t value) const override
    {
        cbor::putItem(out, Major::eUNSIGNED, value);
    }
    void doubleValue(ByteBufferWriter& out, double value) const override { cbor::putReal(out, value); }
    void stringValue(ByteBufferWriter& out, std::string_view value) const override { cbor::putText(out, value); }
};

} // namespace

std::unique_ptr<IDocumentParser> makeQelbinParser()
{
    return std::make_unique<QelbinParser>();
}

const IEncoder& qelbinEncoder()
{
    static const QelbinEncoder& encoder = *new QelbinEncoder;
    return encoder;
}

} // namespace util::serializer
