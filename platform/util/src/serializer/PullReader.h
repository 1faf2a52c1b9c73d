#ifndef UTIL_SERIALIZER_PULLREADER_H
#define UTIL_SERIALIZER_PULLREADER_H

#include "IDocumentParser.h"
#include "TokenList.h"

#include <util/serializer/IStructuredPullDeserializer.h>

#include <vector>

namespace util::serializer {

/// The deserializer of all formats: walks over the tokens of a document that a parser has read.
class PullReader final : public IStructuredPullDeserializer {
public:
    explicit PullReader(std::unique_ptr<IDocumentParser> parser) noexcept;

    bool attach(ByteBufferReader& in) override;

    bool beginObject() override;
    bool atObjectEnd() override;
    bool memberName(std::string& name) override;
    bool memberNameView(std::string_view& name) override;
    bool skipValue() override;
    bool endMember() override;
    bool endObject() override;
    bool beginArray() override;
    bool atArrayEnd() override;
    bool beginElement() override;
    bool endElement() override;
    bool endArray() override;
    std::size_t itemCount() const noexcept override;

    bool peek(Kind& kind) override;
    bool nullValue() override;
    bool stringValue(std::string& value) override;
    bool stringView(std::string_view& value) override;
    bool boolValue(bool& value) override;
    bool intValue(std::int64_t& value) override;
    bool uintValue(std::uint64_t& value) override;
    bool doubleValue(double& value) override;

    bool finish() override;

private:
    /// What may come next in an array or object, or at the root.
    enum class Due : std::uint8_t { eITEM_OR_END, eVALUE, eITEM_END };
    enum class Place : std::uint8_t { eROOT, eOBJECT, eARRAY };
    struct Open {
        Place place;
        Due due;
        std::uint32_t name; // index of the member's name that was read last; 0 if none
        std::uint32_t end;  // index behind the last token
        std::uint32_t items;
    };

    bool fail(std::string_view problem) const;
    bool failType(const char* expected) const;
    std::string describePlace() const;
    const Token* due() const;
    const Token* due(Kind kind, const char* expected) const;
    void taken() noexcept;
    bool begin(Place place);
    template <class Text>
    bool readName(Text& name);
    template <class Text>
    bool readString(Text& value);
    bool mayEnd(Place place) const;
    bool atEnd(Place place, const char* problem) const;
    bool endItem(Place place, const char* problem);
    bool end(Place place, const char* problem);

    const std::unique_ptr<IDocumentParser> m_parser;
    TokenList m_tokens;
    std::size_t m_next = 0;   // the token that is read next
    std::vector<Open> m_open; // the root is the first; empty: no document
};

} // namespace util::serializer

#endif
