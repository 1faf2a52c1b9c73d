#ifndef UTIL_SERIALIZER_STRUCTUREDWRITER_H
#define UTIL_SERIALIZER_STRUCTUREDWRITER_H

#include "IEncoder.h"

#include <util/serializer/IStructuredSerializer.h>

#include <vector>

namespace util::serializer {

/// The serializer of all formats: checks that the calls make one value, and lets an encoder write it.
class StructuredWriter final : public IStructuredSerializer {
public:
    explicit StructuredWriter(const IEncoder& encoder) noexcept;

    bool attach(ByteBufferWriter& out) override;
    void reset() override;

    bool beginObject() override;
    bool memberName(std::string_view name) override;
    bool endMember() override;
    bool endObject() override;
    bool beginArray() override;
    bool beginElement() override;
    bool endElement() override;
    bool endArray() override;

    bool stringValue(std::string_view value) override;
    bool boolValue(bool value) override;
    bool nullValue() override;
    bool intValue(std::int64_t value) override;
    bool uintValue(std::uint64_t value) override;
    bool doubleValue(double value) override;

    bool finish(bool& hasContent) override;

private:
    /// What may come next in an array or object, or at the root.
    enum class Due : std::uint8_t { eITEM_OR_END, eVALUE, eITEM_END };
    enum class Kind : std::uint8_t { eROOT, eOBJECT, eARRAY };
    struct Open {
        Kind kind;
        Due due;
        std::size_t begin; // where it stands in the output
        std::size_t count; // of its items
    };

    bool fail(const char* problem) const;
    bool claimValue();
    bool claimText(std::string_view text) const;
    bool begin(Kind kind);
    bool beginItem(Kind kind, const char* problem);
    bool endItem(Kind kind, const char* problem);
    bool claimEnd(Kind kind, const char* problem) const;

    const IEncoder& m_encoder;
    ByteBufferWriter* m_out = nullptr;
    std::vector<Open> m_open; // the root is the first
};

} // namespace util::serializer

#endif
