#include "IEncoder.h"
#include "StructuredWriter.h"

#include <util/cbor.h>
#include <util/serializer/WireMeter.h>

#include <algorithm>

namespace util::serializer {

namespace {

/// Takes heads of items, and keeps only how long they were.
class Counted {
public:
    unsigned char* extend(std::size_t size) noexcept
    {
        m_size += size;
        return m_item;
    }
    void clear() noexcept { m_size = 0; }
    std::size_t size() const noexcept { return m_size; }

private:
    unsigned char m_item[16] = {}; // longer than the head of any item
    std::size_t m_size = 0;
};

} // namespace

/// Writes the one form and counts the other in one go.
class WireMeter::Impl final : public IEncoder {
public:
    void beginObject(ByteBufferWriter& out) const override
    {
        m_json.beginObject(out);
        count(1);
    }
    void memberName(ByteBufferWriter& out, std::string_view name, bool isFirst) const override
    {
        m_json.memberName(out, name, isFirst);
        countText(name);
    }
    void endObject(ByteBufferWriter& out, std::size_t begin, std::size_t members) const override
    {
        m_json.endObject(out, begin, members);
        count(1);
    }
    void beginArray(ByteBufferWriter& out) const override
    {
        m_json.beginArray(out);
        count(1);
    }
    void beginElement(ByteBufferWriter& out, bool isFirst) const override { m_json.beginElement(out, isFirst); }
    void endArray(ByteBufferWriter& out, std::size_t begin, std::size_t elements) const override
    {
        m_json.endArray(out, begin, elements);
        count(1);
    }

    void nullValue(ByteBufferWriter& out) const override
    {
        m_json.nullValue(out);
        count(1);
    }
    void boolValue(ByteBufferWriter& out, bool value) const override
    {
        m_json.boolValue(out, value);
        count(1);
    }
    void intValue(ByteBufferWriter& out, std::int64_t value) const override
    {
        m_json.intValue(out, value);
        cbor::putInteger(m_qelbin, value);
    }
    void uintValue(ByteBufferWriter& out, std::uint64_t value) const override
    {
        m_json.uintValue(out, value);
        cbor::putItem(m_qelbin, cbor::Major::eUNSIGNED, value);
    }
    void doubleValue(ByteBufferWriter& out, double value) const override
    {
        m_json.doubleValue(out, value);
        cbor::putReal(m_qelbin, value);
    }
    void stringValue(ByteBufferWriter& out, std::string_view value) const override
    {
        m_json.stringValue(out, value);
        countText(value);
    }

    IStructuredSerializer& begin(ByteBufferWriter& json)
    {
        m_writer.reset();
        m_out = &json;
        static_cast<void>(m_writer.attach(json));
        m_qelbin.clear();
        return m_writer;
    }
    bool end(std::size_t& bytes)
    {
        bool hasContent = false;
        if (m_writer.finish(hasContent)) {
            return true;
        }
        bytes = std::max(m_out->size(), m_qelbin.size());
        return false;
    }

private:
    void count(std::size_t bytes) const noexcept { static_cast<void>(m_qelbin.extend(bytes)); }
    void countText(std::string_view text) const noexcept
    {
        cbor::putItem(m_qelbin, cbor::Major::eTEXT, text.size());
        count(text.size());
    }

    const IEncoder& m_json = jsonEncoder();
    mutable Counted m_qelbin;
    const ByteBufferWriter* m_out = nullptr;
    StructuredWriter m_writer{*this};
};

WireMeter::WireMeter() : m_impl(std::make_unique<Impl>()) {}

WireMeter::~WireMeter() = default;

IStructuredSerializer& WireMeter::begin(ByteBufferWriter& json)
{
    return m_impl->begin(json);
}

bool WireMeter::end(std::size_t& bytes)
{
    return m_impl->end(bytes);
}

} // namespace util::serializer
