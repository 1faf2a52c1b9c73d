#ifndef UTIL_SERIALIZER_ISTRUCTUREDPULLDESERIALIZER_H
#define UTIL_SERIALIZER_ISTRUCTUREDPULLDESERIALIZER_H

#include <util/ByteBufferReader.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace util::serializer {

/// Reads one structured value, field by field as the caller asks. The whole document is checked at `attach`. Every
/// fallible operation answers `true` on failure, leaves its argument alone and records a reason in
/// `obr::ErrorStorage`. Not thread-safe.
class KESA_API IStructuredPullDeserializer {
public:
    enum class Kind : std::uint8_t { eNULL, eBOOL, eINTEGER, eREAL, eSTRING, eARRAY, eOBJECT };

    virtual ~IStructuredPullDeserializer();

    /// `in` outlives the reading.
    [[nodiscard]] virtual bool attach(ByteBufferReader& in) = 0;

    [[nodiscard]] virtual bool beginObject() = 0;
    /// True when no member follows. On broken input an error is recorded and the answer is false: a loop asks
    /// `obr::ErrorStorage::isError` next.
    virtual bool atObjectEnd() = 0;
    [[nodiscard]] virtual bool memberName(std::string& name) = 0;
    /// The same without a copy; valid until the next `attach`.
    [[nodiscard]] virtual bool memberNameView(std::string_view& name) = 0;
    [[nodiscard]] virtual bool skipValue() = 0;
    [[nodiscard]] virtual bool endMember() = 0;
    [[nodiscard]] virtual bool endObject() = 0;
    [[nodiscard]] virtual bool beginArray() = 0;
    virtual bool atArrayEnd() = 0; ///< as `atObjectEnd`
    [[nodiscard]] virtual bool beginElement() = 0;
    [[nodiscard]] virtual bool endElement() = 0;
    [[nodiscard]] virtual bool endArray() = 0;
    /// How many members or elements the innermost object or array has in all, to make room for them; 0 outside.
    virtual std::size_t itemCount() const noexcept = 0;

    /// The kind of the next value, which stays unread.
    [[nodiscard]] virtual bool peek(Kind& kind) = 0;
    [[nodiscard]] virtual bool nullValue() = 0;
    [[nodiscard]] virtual bool stringValue(std::string& value) = 0;
    /// The same without a copy; valid until the next `attach`.
    [[nodiscard]] virtual bool stringView(std::string_view& value) = 0;
    [[nodiscard]] virtual bool boolValue(bool& value) = 0;
    [[nodiscard]] virtual bool intValue(std::int64_t& value) = 0;
    [[nodiscard]] virtual bool uintValue(std::uint64_t& value) = 0;
    [[nodiscard]] virtual bool doubleValue(double& value) = 0;

    /// Ends the value; bytes after it are a failure.
    [[nodiscard]] virtual bool finish() = 0;
};

} // namespace util::serializer

#endif
