#include "IEncoder.h"
#include "StructuredWriter.h"
#include "src/text/json_text.h"

#include <util/cbor.h>
#include <util/serializer/WireMeter.h>

#include <algorithm>
#include <string>

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

std::size_t digits(std::uint64_t value) noexcept
{
    std::size_t count = 1;
    for (; value >= 10; value /= 10) {
        ++count;
    }
    return count;
}

} // namespace

/// Both forms in one go.
class WireMeter::Impl final : public IEncoder {
public:
    void beginObject(ByteBufferWriter&) const override { count(1, 1); }
    void memberName(ByteBufferWriter& out, std::string_view name, bool isFirst) const override
    {
        stringValue(out, name);
        m_json += isFirst ? 1 : 2;
    }
    void endObject(ByteBufferWriter&, std::size_t, std::size_t) const override { count(1, 1); }
    void beginArray(ByteBufferWriter&) const override { count(1, 1); }
    void beginElement(ByteBufferWriter&, bool isFirst) const override { m_json += isFirst ? 0 : 1; }
    void endArray(ByteBufferWriter&, std::size_t, std::size_t) const override { count(1, 1); }

    void nullValue(ByteBufferWriter&) const override { count(4, 1); }
    void boolValue(ByteBufferWriter&, bool value) const override { count(value ? 4 : 5, 1); }
    void intValue(ByteBufferWriter& out, std::int64_t value) const override
    {
        if (value >= 0) {
            uintValue(out, static_cast<std::uint64_t>(value));
        } else {
            m_json += 1 + digits(0 - static_cast<std::uint64_t>(value));
            cbor::putInteger(m_qelbin, value);
        }
    }
    void uintValue(ByteBufferWriter&, std::uint64_t value) const override
    {
        m_json += digits(value);
        cbor::putItem(m_qelbin, cbor::Major::eUNSIGNED, value);
    }
    void doubleValue(ByteBufferWriter&, double value) const override
    {
        std::string text;
        text::appendReal(text, value);
        m_json += text.size();
        cbor::putReal(m_qelbin, value);
    }
    void stringValue(ByteBufferWriter&, std::string_view value) const override
    {
        m_json += text::jsonStringSize(value);
        cbor::putItem(m_qelbin, cbor::Major::eTEXT, value.size());
        static_cast<void>(m_qelbin.extend(value.size()));
    }

    IStructuredSerializer& begin()
    {
        m_writer.reset();
        static_cast<void>(m_writer.attach(m_nothing));
        m_json = 0;
        m_qelbin.clear();
        return m_writer;
    }
    bool end(std::size_t& bytes)
    {
        bool hasContent = false;
        if (m_writer.finish(hasContent)) {
            return true;
        }
        bytes = std::max(m_json, m_qelbin.size());
        return false;
    }

private:
    void count(std::size_t json, std::size_t qelbin) const noexcept
    {
        m_json += json;
        static_cast<void>(m_qelbin.extend(qelbin));
    }

    mutable std::size_t m_json = 0;
    mutable Counted m_qelbin;
    ByteBufferWriter m_nothing{0};
    StructuredWriter m_writer{*this};
};

WireMeter::WireMeter() : m_impl(std::make_unique<Impl>()) {}

WireMeter::~WireMeter() = default;

IStructuredSerializer& WireMeter::begin()
{
    return m_impl->begin();
}

bool WireMeter::end(std::size_t& bytes)
{
    return m_impl->end(bytes);
}

} // namespace util::serializer
