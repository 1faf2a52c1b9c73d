#ifndef UTIL_SERIALIZER_ISTRUCTUREDSERIALIZER_H
#define UTIL_SERIALIZER_ISTRUCTUREDSERIALIZER_H

#include <util/ByteBufferWriter.h>

#include <cstdint>
#include <string_view>

namespace util::serializer {

/// Writes one structured value in some format. Every operation answers `true` on failure and then records a reason
/// in `obr::ErrorStorage`. One serializer can write any number of values, with `reset` between them. Not thread-safe.
class KESA_API IStructuredSerializer {
public:
    virtual ~IStructuredSerializer();

    /// Writes to the end of `out`, which outlives the writing.
    [[nodiscard]] virtual bool attach(ByteBufferWriter& out) = 0;
    /// Forgets a value begun or finished, and what it was attached to.
    virtual void reset() = 0;

    [[nodiscard]] virtual bool beginObject() = 0;
    [[nodiscard]] virtual bool memberName(std::string_view name) = 0;
    [[nodiscard]] virtual bool endMember() = 0; ///< after each member's value
    [[nodiscard]] virtual bool endObject() = 0;
    [[nodiscard]] virtual bool beginArray() = 0;
    [[nodiscard]] virtual bool beginElement() = 0;
    virtual bool endElement() = 0;
    [[nodiscard]] virtual bool endArray() = 0;

    /// UTF-8; anything else is a failure.
    [[nodiscard]] virtual bool stringValue(std::string_view value) = 0;
    [[nodiscard]] virtual bool boolValue(bool value) = 0;
    [[nodiscard]] virtual bool nullValue() = 0;
    [[nodiscard]] virtual bool intValue(std::int64_t value) = 0;
    [[nodiscard]] virtual bool uintValue(std::uint64_t value) = 0;
    [[nodiscard]] virtual bool doubleValue(double value) = 0; ///< not finite: failure

    /// Ends the value. `hasContent` false: nothing was written.
    [[nodiscard]] virtual bool finish(bool& hasContent) = 0;
};

} // namespace util::serializer

#endif
