#include "IEncoder.h"
#include "src/text/json_text.h"

#include <charconv>

namespace util::serializer {
namespace {

template <class T>
void appendInteger(ByteBufferWriter& out, T value)
{
    char text[24];
    const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
    out.append(text, static_cast<std::size_t>(result.ptr - text));
}

/// Compact: no white space.
class JsonEncoder final : public IEncoder {
public:
    void beginObject(ByteBufferWriter& out) const override { out.append('{'); }
    void memberName(ByteBufferWriter& out, std::string_view name, bool isFirst) const override
    {
        beginElement(out, isFirst);
        text::appendJsonString(out, name);
        out.append(':');
    }
    void endObject(ByteBufferWriter& out, std::size_t, std::size_t) const override { out.append('}'); }
    void beginArray(ByteBufferWriter& out) const override { out.append('['); }
    void beginElement(ByteBufferWriter& out, bool isFirst) const override
    {
        if (!isFirst) {
            out.append(',');
        }
    }
    void endArray(ByteBufferWriter& out, std::size_t, std::size_t) const override { out.append(']'); }

    void nullValue(ByteBufferWriter& out) const override { out.append(std::string_view("null")); }
    void boolValue(ByteBufferWriter& out, bool value) const override
    {
        out.append(std::string_view(value ? "true" : "false"));
    }
    void intValue(ByteBufferWriter& out, std::int64_t value) const override { appendInteger(out, value); }
    void uintValue(ByteBufferWriter& out, std::uint64_t value) const override { appendInteger(out, value); }
    void doubleValue(ByteBufferWriter& out, double value) const override { text::appendReal(out, value); }
    void stringValue(ByteBufferWriter& out, std::string_view value) const override
    {
        text::appendJsonString(out, value);
    }
};

} // namespace

const IEncoder& jsonEncoder()
{
    static const JsonEncoder& encoder = *new JsonEncoder;
    return encoder;
}

} // namespace util::serializer
