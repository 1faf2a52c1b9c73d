#ifndef UTIL_SERIALIZER_IENCODER_H
#define UTIL_SERIALIZER_IENCODER_H

#include <util/ByteBufferWriter.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace util::serializer {

/// The bytes of one format. `StructuredWriter` sees to it that the calls make one well-formed value.
class IEncoder {
public:
    virtual ~IEncoder() = default;

    virtual void beginObject(ByteBufferWriter& out) = 0;
    virtual void memberName(ByteBufferWriter& out, std::string_view name, bool isFirst) = 0;
    /// `begin` is where the object stands in `out`, `count` the number of its members.
    virtual void endObject(ByteBufferWriter& out, std::size_t begin, std::size_t count) = 0;
    virtual void beginArray(ByteBufferWriter& out) = 0;
    virtual void beginElement(ByteBufferWriter& out, bool isFirst) = 0;
    virtual void endArray(ByteBufferWriter& out, std::size_t begin, std::size_t count) = 0;

    virtual void nullValue(ByteBufferWriter& out) = 0;
    virtual void boolValue(ByteBufferWriter& out, bool value) = 0;
    virtual void intValue(ByteBufferWriter& out, std::int64_t value) = 0;
    virtual void uintValue(ByteBufferWriter& out, std::uint64_t value) = 0;
    virtual void doubleValue(ByteBufferWriter& out, double value) = 0;
    virtual void stringValue(ByteBufferWriter& out, std::string_view value) = 0;
};

std::unique_ptr<IEncoder> makeJsonEncoder();
std::unique_ptr<IEncoder> makeMsgpackEncoder();
std::unique_ptr<IEncoder> makeQelbinEncoder();

} // namespace util::serializer

#endif
