// The one unit that knows msgpack-cxx.
#include "IDocumentParser.h"
#include "IEncoder.h"

#define MSGPACK_NO_BOOST
#include <msgpack/null_visitor.hpp>
#include <msgpack/pack.hpp>
#include <msgpack/unpack.hpp>

#include <fmt/format.h>

#include <array>
#include <bit>
#include <cstring>

namespace util::serializer {
namespace {

/// The events of the parser. They answer whether to go on.
class Visitor : public msgpack::null_visitor {
public:
    explicit Visitor(TokenList& tokens) noexcept : m_tokens(tokens) {}

    bool visit_nil() { return !m_tokens.addNull(); }
    bool visit_boolean(bool value) { return !m_tokens.addBool(value); }
    bool visit_positive_integer(std::uint64_t value) { return !m_tokens.addUnsigned(value); }
    bool visit_negative_integer(std::int64_t value) { return !m_tokens.addInteger(value); }
    bool visit_float32(float value) { return !m_tokens.addReal(static_cast<double>(value)); }
    bool visit_float64(double value) { return !m_tokens.addReal(value); }
    bool visit_str(const char* text, std::uint32_t size) { return !m_tokens.addString({text, size}); }
    bool visit_bin(const char*, std::uint32_t) { return !m_tokens.fail("binary data is not supported"); }
    bool visit_ext(const char*, std::uint32_t) { return !m_tokens.fail("extension types are not supported"); }
    bool start_array(std::uint32_t) { return !m_tokens.beginArray(); }
    bool end_array() { return !m_tokens.end(); }
    bool start_map(std::uint32_t) { return !m_tokens.beginObject(); }
    bool end_map() { return !m_tokens.end(); }
    void parse_error(std::size_t, std::size_t) { static_cast<void>(m_tokens.fail("a byte that begins no value")); }
    void insufficient_bytes(std::size_t, std::size_t)
    {
        static_cast<void>(m_tokens.fail("the document ends too early"));
    }

private:
    TokenList& m_tokens;
};

class MsgpackParser final : public IDocumentParser {
public:
    bool parse(std::string_view document, TokenList& tokens, Problem& problem) override
    {
        if (document.empty()) {
            problem.what = "the document is empty";
            return true;
        }
        std::size_t offset = 0;
        Visitor visitor(tokens);
        const bool isValue = msgpack::parse(document.data(), document.size(), offset, visitor);
        if (isValue && offset == document.size()) {
            return false;
        }
        problem.what = fmt::format("byte {}: {}", offset,
                                   isValue ? "unexpected data after the end of the document" : tokens.problem());
        return true;
    }
};

/// What the packer writes to.
struct Stream {
    ByteBufferWriter& out;
    void write(const char* data, std::size_t size) { out.append(data, size); }
};

using Packer = msgpack::packer<Stream>;

/// The header of a map or array holds its size, which is known only at its end. Most have room in the one byte that was
/// left for it; larger ones move their content.
template <class PackHeader>
void insertHeader(ByteBufferWriter& out, std::size_t begin, PackHeader packHeader)
{
    ByteBufferWriter header(8);
    Stream stream{header};
    Packer packer(stream);
    packHeader(packer);
    const std::size_t contentSize = out.size() - begin - 1;
    out.append(header.data() + 1, header.size() - 1); // any bytes: they make the room
    std::memmove(out.data() + begin + header.size(), out.data() + begin + 1, contentSize);
    std::memcpy(out.data() + begin, header.data(), header.size());
}

class MsgpackEncoder final : public IEncoder {
public:
    void beginObject(ByteBufferWriter& out) const override { out.append('\0'); }
    void memberName(ByteBufferWriter& out, std::string_view name, bool) const override { stringValue(out, name); }
    void endObject(ByteBufferWriter& out, std::size_t begin, std::size_t count) const override
    {
        insertHeader(out, begin, [count](Packer& packer) { packer.pack_map(static_cast<std::uint32_t>(count)); });
    }
    void beginArray(ByteBufferWriter& out) const override { out.append('\0'); }
    void beginElement(ByteBufferWriter&, bool) const override {}
    void endArray(ByteBufferWriter& out, std::size_t begin, std::size_t count) const override
    {
        insertHeader(out, begin, [count](Packer& packer) { packer.pack_array(static_cast<std::uint32_t>(count)); });
    }

    void nullValue(ByteBufferWriter& out) const override
    {
        pack(out, [](Packer& packer) { packer.pack_nil(); });
    }
    void boolValue(ByteBufferWriter& out, bool value) const override
    {
        pack(out, [value](Packer& packer) { value ? packer.pack_true() : packer.pack_false(); });
    }
    void intValue(ByteBufferWriter& out, std::int64_t value) const override
    {
        pack(out, [value](Packer& packer) { packer.pack_int64(value); });
    }
    void uintValue(ByteBufferWriter& out, std::uint64_t value) const override
    {
        pack(out, [value](Packer& packer) { packer.pack_uint64(value); });
    }
    void doubleValue(ByteBufferWriter& out, double value) const override
    {
        // Written here: the packer makes integers of whole numbers, but what was a real has to come back as one.
        std::array<unsigned char, 9> bytes{0xcb};
        const auto bits = std::bit_cast<std::uint64_t>(value);
        for (std::size_t i = 1; i < bytes.size(); ++i) {
            bytes[i] = static_cast<unsigned char>(bits >> (64 - 8 * i));
        }
        out.append(bytes.data(), bytes.size());
    }
    void stringValue(ByteBufferWriter& out, std::string_view value) const override
    {
        pack(out, [value](Packer& packer) { packer.pack_str(static_cast<std::uint32_t>(value.size())); });
        out.append(value);
    }

private:
    template <class F>
    static void pack(ByteBufferWriter& out, F function)
    {
        Stream stream{out};
        Packer packer(stream);
        function(packer);
    }
};

} // namespace

std::unique_ptr<IDocumentParser> makeMsgpackParser()
{
    return std::make_unique<MsgpackParser>();
}

const IEncoder& msgpackEncoder()
{
    static const MsgpackEncoder& encoder = *new MsgpackEncoder;
    return encoder;
}

} // namespace util::serializer
