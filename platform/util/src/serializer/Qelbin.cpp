// The one unit that knows libcbor. Its decoder reads one item head at a time and keeps nothing, so what is open, and
// how much of it is still to come, is kept here.
#include "IDocumentParser.h"
#include "IEncoder.h"

#include <cbor/encoding.h>
#include <cbor/streaming.h>

#include <fmt/format.h>

#include <array>
#include <limits>
#include <vector>

namespace util::serializer {
namespace {

/// Decodes one document. What the decoder calls has no result: a problem is noted and ends the loop in `decode`.
class Decoder {
public:
    Decoder(std::string_view document, TokenList& tokens, std::vector<std::uint64_t>& open,
            std::string& chunks) noexcept
        : m_document(document), m_tokens(tokens), m_open(open), m_chunks(chunks)
    {
        m_open.clear();
        m_chunks.clear();
    }

    [[nodiscard]] bool decode()
    {
        while (m_offset < m_document.size() && !m_hasFailed) {
            const cbor_decoder_result result =
                ::cbor_stream_decode(bytes(), m_document.size() - m_offset, &callbacks(), this);
            if (result.status == CBOR_DECODER_NEDATA) {
                return m_tokens.fail("the document ends too early");
            }
            if (result.status != CBOR_DECODER_FINISHED) {
                return m_tokens.fail("a byte that begins no value");
            }
            m_offset += m_hasFailed ? 0 : result.read;
        }
        if (!m_hasFailed && (!m_tokens.isComplete() || m_isText)) {
            return m_tokens.fail("the document ends too early");
        }
        return m_hasFailed;
    }

    std::size_t offset() const noexcept { return m_offset; }

private:
    static constexpr std::uint64_t INDEFINITE = std::numeric_limits<std::uint64_t>::max();

    cbor_data bytes() const noexcept { return reinterpret_cast<cbor_data>(m_document.data()) + m_offset; }
    void fail(const char* problem) noexcept { m_hasFailed = m_tokens.fail(problem); }

    /// Notes the result of reading one whole value, which may be the last of what is open.
    void value(bool failed)
    {
        m_hasFailed = m_hasFailed || failed;
        m_isTagged = false;
        while (!m_hasFailed && !m_open.empty() && m_open.back() != INDEFINITE && --m_open.back() == 0) {
            m_open.pop_back();
            m_hasFailed = m_tokens.end();
        }
    }
    /// Whether a value may stand here: between the chunks of a text only chunks may.
    bool mayStand()
    {
        if (m_isText) {
            fail("a text consists of something else than text");
        }
        return !m_isText;
    }
    void scalar(bool (TokenList::*add)())
    {
        if (mayStand()) {
            value((m_tokens.*add)());
        }
    }
    template <class T, class U>
    void scalar(bool (TokenList::*add)(T), U itsValue)
    {
        if (mayStand()) {
            value((m_tokens.*add)(itsValue));
        }
    }
    void negative(std::uint64_t distance)
    {
        if (distance > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return fail("a negative number does not fit 64 bits");
        }
        scalar(&TokenList::addInteger, -1 - static_cast<std::int64_t>(distance));
    }
    void begin(bool (TokenList::*add)(), std::uint64_t count)
    {
        if (!mayStand()) {
            return;
        }
        // Each item has at least one byte: a larger number is a lie, found before it is believed.
        if (count != INDEFINITE && count > m_document.size() - m_offset) {
            return fail("the document ends too early");
        }
        m_isTagged = false;
        m_hasFailed = (m_tokens.*add)();
        if (m_hasFailed) {
            return;
        }
        if (count == 0) {
            return value(m_tokens.end());
        }
        m_open.push_back(count);
    }
    void beginMap(std::uint64_t members)
    {
        const bool isLarge = members != INDEFINITE && members > INDEFINITE / 4;
        begin(&TokenList::beginObject, members == INDEFINITE || isLarge ? members : members * 2);
    }
    void text(std::string_view chunk)
    {
        if (m_isText) {
            m_chunks.append(chunk);
        } else {
            value(m_tokens.addString(chunk));
        }
    }
    void beginText()
    {
        if (mayStand()) {
            m_isText = true;
            m_chunks.reserve(m_document.size()); // never moves: earlier strings point into it
            m_textBegin = m_chunks.size();
        }
    }
    void endIndefinite()
    {
        if (m_isText) {
            m_isText = false;
            return value(m_tokens.addString(std::string_view(m_chunks).substr(m_textBegin)));
        }
        if (m_open.empty() || m_open.back() != INDEFINITE || m_isTagged) {
            return fail("an end without a beginning");
        }
        m_open.pop_back();
        value(m_tokens.end());
    }
    void tag()
    {
        if (mayStand()) {
            m_isTagged = true;
        }
    }

    static Decoder& self(void* context) { return *static_cast<Decoder*>(context); }
    static const cbor_callbacks& callbacks();
    static cbor_callbacks makeCallbacks();

    const std::string_view m_document;
    TokenList& m_tokens;
    std::vector<std::uint64_t>& m_open; // per array or map that is open, the items still to come
    std::string& m_chunks;              // texts that come in chunks, put together
    std::size_t m_offset = 0;
    std::size_t m_textBegin = 0;
    bool m_isText = false; // in a text that comes in chunks
    bool m_isTagged = false;
    bool m_hasFailed = false;
};

cbor_callbacks Decoder::makeCallbacks()
{
    cbor_callbacks c{};
    c.uint8 = [](void* d, std::uint8_t v) { self(d).scalar(&TokenList::addUnsigned, v); };
    c.uint16 = [](void* d, std::uint16_t v) { self(d).scalar(&TokenList::addUnsigned, v); };
    c.uint32 = [](void* d, std::uint32_t v) { self(d).scalar(&TokenList::addUnsigned, v); };
    c.uint64 = [](void* d, std::uint64_t v) { self(d).scalar(&TokenList::addUnsigned, v); };
    c.negint8 = [](void* d, std::uint8_t v) { self(d).negative(v); };
    c.negint16 = [](void* d, std::uint16_t v) { self(d).negative(v); };
    c.negint32 = [](void* d, std::uint32_t v) { self(d).negative(v); };
    c.negint64 = [](void* d, std::uint64_t v) { self(d).negative(v); };
    c.byte_string_start = [](void* d) { self(d).fail("binary data is not supported"); };
    c.byte_string = [](void* d, cbor_data, std::size_t) { self(d).fail("binary data is not supported"); };
    c.string = [](void* d, cbor_data data, std::size_t size) {
        self(d).text({reinterpret_cast<const char*>(data), size});
    };
    c.string_start = [](void* d) { self(d).beginText(); };
    c.indef_array_start = [](void* d) { self(d).begin(&TokenList::beginArray, INDEFINITE); };
    c.array_start = [](void* d, std::size_t count) { self(d).begin(&TokenList::beginArray, count); };
    c.indef_map_start = [](void* d) { self(d).beginMap(INDEFINITE); };
    c.map_start = [](void* d, std::size_t members) { self(d).beginMap(members); };
    c.tag = [](void* d, std::uint64_t) { self(d).tag(); };
    c.float2 = [](void* d, float v) { self(d).scalar(&TokenList::addReal, static_cast<double>(v)); };
    c.float4 = [](void* d, float v) { self(d).scalar(&TokenList::addReal, static_cast<double>(v)); };
    c.float8 = [](void* d, double v) { self(d).scalar(&TokenList::addReal, v); };
    c.undefined = [](void* d) { self(d).fail("the value 'undefined' is not supported"); };
    c.null = [](void* d) { self(d).scalar(&TokenList::addNull); };
    c.boolean = [](void* d, bool v) { self(d).scalar(&TokenList::addBool, v); };
    c.indef_break = [](void* d) { self(d).endIndefinite(); };
    return c;
}

const cbor_callbacks& Decoder::callbacks()
{
    static const cbor_callbacks instance = makeCallbacks();
    return instance;
}

class QelbinParser final : public IDocumentParser {
public:
    bool parse(std::string_view document, TokenList& tokens, std::string& problem) override
    {
        if (document.empty()) {
            problem = "the document is empty";
            return true;
        }
        Decoder decoder(document, tokens, m_open, m_chunks);
        if (decoder.decode()) {
            problem = fmt::format("byte {}: {}", decoder.offset(), tokens.problem());
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
    void beginObject(ByteBufferWriter& out) const override { put(out, ::cbor_encode_indef_map_start); }
    void memberName(ByteBufferWriter& out, std::string_view name, bool) const override { stringValue(out, name); }
    void endObject(ByteBufferWriter& out, std::size_t, std::size_t) const override { put(out, ::cbor_encode_break); }
    void beginArray(ByteBufferWriter& out) const override { put(out, ::cbor_encode_indef_array_start); }
    void beginElement(ByteBufferWriter&, bool) const override {}
    void endArray(ByteBufferWriter& out, std::size_t, std::size_t) const override { put(out, ::cbor_encode_break); }

    void nullValue(ByteBufferWriter& out) const override { put(out, ::cbor_encode_null); }
    void boolValue(ByteBufferWriter& out, bool value) const override { put(out, ::cbor_encode_bool, value); }
    void intValue(ByteBufferWriter& out, std::int64_t value) const override
    {
        if (value >= 0) {
            put(out, ::cbor_encode_uint, static_cast<std::uint64_t>(value));
        } else {
            put(out, ::cbor_encode_negint, static_cast<std::uint64_t>(-1 - value));
        }
    }
    void uintValue(ByteBufferWriter& out, std::uint64_t value) const override { put(out, ::cbor_encode_uint, value); }
    void doubleValue(ByteBufferWriter& out, double value) const override { put(out, ::cbor_encode_double, value); }
    void stringValue(ByteBufferWriter& out, std::string_view value) const override
    {
        put(out, ::cbor_encode_string_start, value.size());
        out.append(value);
    }

private:
    /// Appends what one of the library's encoders writes, none of which needs more than 9 bytes.
    template <class Encode, class... Value>
    static void put(ByteBufferWriter& out, Encode encode, Value... value)
    {
        std::array<unsigned char, 16> bytes{};
        out.append(bytes.data(), encode(value..., bytes.data(), bytes.size()));
    }
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
