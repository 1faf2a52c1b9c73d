#include "protocol/Cbor.h"

#include <util/utf8.h>

namespace kesa::commadapter::protocol::cbor {

void putLongItem(ByteQueue& out, Major major, std::uint64_t argument)
{
    const unsigned log = argument <= 0xFF ? 0 : argument <= 0xFFFF ? 1 : argument <= 0xFFFFFFFF ? 2 : 3;
    const unsigned bytes = 1U << log;
    unsigned char* const at = out.extend(1 + bytes);
    at[0] = static_cast<unsigned char>(static_cast<unsigned>(major) << 5U | (24 + log));
    for (unsigned i = 0; i < bytes; ++i) {
        at[1 + i] = static_cast<unsigned char>(argument >> (8 * (bytes - 1 - i)));
    }
}

bool Reader::argument(unsigned info, Item& item) noexcept
{
    if (info < 24) {
        item.argument = info;
        return false;
    }
    if (info == 31) {
        item.isIndefinite = true;
        return item.major != Major::eARRAY && item.major != Major::eMAP && fail("indefinite length of a wrong item");
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
        if (argument(first & 31U, item)) {
            return true;
        }
        // false, true, null and the floats; nothing else has a value here.
        if (item.major == Major::eSIMPLE && (first & 31U) < 25 && ((first & 31U) < 20 || (first & 31U) > 22)) {
            return fail("unknown simple value");
        }
    } while (item.major == Major::eTAG);
    if (item.major == Major::eNEGATIVE && item.argument > INT64_MAX) {
        return fail("integer out of range");
    }
    return false;
}

bool Reader::string(const Item& item, std::string_view& content) noexcept
{
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
    if (depth >= MAX_DEPTH) {
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
        if (skip(depth + 1)) {
            return true;
        }
    }
    return false;
}

} // namespace kesa::commadapter::protocol::cbor
