#include <util/cbor.h>
#include <util/utf8.h>

#include <cmath>

namespace util::cbor {

bool Reader::readArgument(Item& item) noexcept
{
    const unsigned info = item.info;
    if (info < 24) {
        item.argument = info;
        return false;
    }
    if (info == 31) {
        item.isIndefinite = true;
        return (item.major < Major::eBYTES || item.major > Major::eMAP) && fail("indefinite length of a wrong item");
    }
    if (info > 27) {
        return fail("reserved item");
    }
    const std::size_t bytes = std::size_t{1} << (info - 24);
    if (static_cast<std::size_t>(m_end - m_at) < bytes) {
        return fail("it ends inside a value");
    }
    for (std::size_t i = 0; i < bytes; ++i) {
        item.argument = item.argument << 8U | *m_at++;
    }
    return false;
}

bool Reader::longItem(Item& item) noexcept
{
    do {
        if (m_at == m_end) {
            return fail("it ends inside a value");
        }
        const unsigned first = *m_at++;
        item = Item();
        item.major = static_cast<Major>(first >> 5U);
        item.info = first & 31U;
        if (readArgument(item)) {
            return true;
        }
        // false, true, null and the floats; nothing else has a value here.
        if (item.major == Major::eSIMPLE && item.info < 25 && (item.info < 20 || item.info > 22)) {
            return fail("unknown simple value");
        }
    } while (item.major == Major::eTAG);
    if (item.major == Major::eNEGATIVE && item.argument > INT64_MAX) {
        return fail("integer out of range");
    }
    return false;
}

double Reader::real(const Item& item) noexcept
{
    if (item.info == 27) {
        double value = 0;
        std::memcpy(&value, &item.argument, sizeof value);
        return value;
    }
    if (item.info == 26) {
        const auto bits = static_cast<std::uint32_t>(item.argument);
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return static_cast<double>(value);
    }
    const auto bits = static_cast<unsigned>(item.argument);
    const int exponent = static_cast<int>(bits >> 10U & 31U);
    const auto fraction = static_cast<double>(bits & 1023U);
    const double size = exponent == 0    ? std::ldexp(fraction, -24)
                        : exponent != 31 ? std::ldexp(fraction + 1024, exponent - 25)
                        : fraction > 0   ? std::nan("")
                                         : HUGE_VAL;
    return (bits & 0x8000U) == 0 ? size : -size;
}

bool Reader::string(const Item& item, std::string_view& content) noexcept
{
    if (item.isIndefinite) {
        return fail("indefinite length of a wrong item");
    }
    if (item.argument > static_cast<std::size_t>(m_end - m_at)) {
        return fail("it ends inside a value");
    }
    content = {reinterpret_cast<const char*>(m_at), static_cast<std::size_t>(item.argument)};
    if (item.major == Major::eTEXT && !util::isUtf8(content)) {
        return fail("text is not UTF-8");
    }
    m_at += content.size();
    return false;
}

bool Reader::skip(unsigned depth) noexcept
{
    Item next;
    return item(next) || skipContent(next, depth);
}

bool Reader::skipContent(const Item& item, unsigned depth) noexcept
{
    std::string_view content;
    if (item.major == Major::eBYTES || item.major == Major::eTEXT) {
        return string(item, content);
    }
    if (item.major != Major::eARRAY && item.major != Major::eMAP) {
        return false;
    }
    if (depth == 0) {
        return fail("nested too deeply");
    }
    for (std::uint64_t i = 0; item.isIndefinite ? !atBreak() : i < item.argument; ++i) {
        if (item.major == Major::eMAP) {
            Item key;
            if (this->item(key)) {
                return true;
            }
            if (key.major != Major::eTEXT) {
                return fail("key of an inner map is not text");
            }
            if (string(key, content)) {
                return true;
            }
        }
        if (skip(depth - 1)) {
            return true;
        }
    }
    return false;
}

} // namespace util::cbor
