#ifndef UTIL_SERIALIZER_IENCODER_H
#define UTIL_SERIALIZER_IENCODER_H

#include <util/ByteBufferWriter.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace util::serializer {

/// The bytes of one format. `StructuredWriter` sees to it that the calls make one well-formed value. Without a state:
/// there is one for all, which is never destroyed.
class IEncoder {
public:
    virtual ~IEncoder() = default;

    virtual void beginObject(ByteBufferWriter& out) const = 0;
    virtual void memberName(ByteBufferWriter& out, std::string_view name, bool isFirst) const = 0;
    /// `begin` is where the object stands in `out`, `count` the number of its members.
    virtual void endObject(ByteBufferWriter& out, std::size_t begin, std::size_t count) const = 0;
    virtual void beginArray(ByteBufferWriter& out) const = 0;
    virtual void beginElement(ByteBufferWriter& out, bool isFirst) const = 0;
    virtual void endArray(ByteBufferWriter& out, std::size_t begin, std::size_t count) const = 0;

    virtual void nullValue(ByteBufferWriter& out) const = 0;
    virtual void boolValue(ByteBufferWriter& out, bool value) const = 0;
    virtual void intValue(ByteBufferWriter& out, std::int64_t value) const = 0;
    virtual void uintValue(ByteBufferWriter& out, std::uint64_t value) const = 0;
    virtual void doubleValue(ByteBufferWriter& out, double value) const = 0;
    virtual void stringValue(ByteBufferWriter& out, std::string_view value) const = 0;
};

const IEncoder& jsonEncoder();
const IEncoder& msgpackEncoder();
const IEncoder& qelbinEncoder();

} // namespace util::serializer

#endif
