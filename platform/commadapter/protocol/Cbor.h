#ifndef KESA_COMMADAPTER_PROTOCOL_CBOR_H
#define KESA_COMMADAPTER_PROTOCOL_CBOR_H

#include "protocol/ByteQueue.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

/// The few CBOR items (RFC 8949) heads are made of, written and read in place: a head is on the path of every message,
/// where the general serializer with its virtual calls and token list would cost more than all the rest.
namespace kesa::commadapter::protocol::cbor {

enum class Major : std::uint8_t { eUNSIGNED, eNEGATIVE, eBYTES, eTEXT, eARRAY, eMAP, eTAG, eSIMPLE };

inline constexpr unsigned char INDEFINITE_ARRAY = 0x9F;
inline constexpr unsigned char INDEFINITE_MAP = 0xBF;
inline constexpr unsigned char BREAK = 0xFF;
inline constexpr unsigned char FALSE_ITEM = 0xF4;
inline constexpr unsigned char TRUE_ITEM = 0xF5;
inline constexpr unsigned char NULL_ITEM = 0xF6;
inline constexpr unsigned MAX_DEPTH = 32; ///< of a head, itself included

inline void putByte(ByteQueue& out, unsigned char byte)
{
    *out.extend(1) = byte;
}

void putLongItem(ByteQueue& out, Major major, std::uint64_t argument);

/// The first byte of an item with its argument, in the shortest form.
inline void putItem(ByteQueue& out, Major major, std::uint64_t argument)
{
    if (argument < 24) {
        putByte(out, static_cast<unsigned char>(static_cast<unsigned>(major) << 5U | argument));
    } else {
        putLongItem(out, major, argument);
    }
}

inline void putInteger(ByteQueue& out, std::int64_t value)
{
    if (value >= 0) {
        putItem(out, Major::eUNSIGNED, static_cast<std::uint64_t>(value));
    } else {
        putItem(out, Major::eNEGATIVE, ~static_cast<std::uint64_t>(value));
    }
}

inline void putText(ByteQueue& out, std::string_view text)
{
    putItem(out, Major::eTEXT, text.size());
    out.append(text.data(), text.size());
}

/// Reads items from the front of some bytes. Operations answer `true` on failure, after which only `why` is of use.
/// Strict where it costs nothing to be: strings have a definite length, text is UTF-8, keys of inner maps are text.
/// Tags are passed over.
class Reader {
public:
    Reader(const unsigned char* data, std::size_t size) noexcept : m_at(data), m_end(data + size) {}

    struct Item {
        Major major = Major::eSIMPLE;
        bool isIndefinite = false;
        std::uint64_t argument = 0;
    };
    /// The first part of the next item.
    [[nodiscard]] bool item(Item& item) noexcept
    {
        // Nearly all items of a head are of one byte.
        if (m_at != m_end && (*m_at & 31U) < 24 && *m_at < TAGS) {
            item = {static_cast<Major>(*m_at >> 5U), false, *m_at & 31U};
            ++m_at;
            return false;
        }
        return longItem(item);
    }
    /// The characters or bytes of a string item.
    [[nodiscard]] bool string(const Item& item, std::string_view& content) noexcept;
    /// The next item as a whole, whatever it is. `depth` is that of the container it stands in.
    [[nodiscard]] bool skip(unsigned depth) noexcept;
    /// Whether the end of an indefinite container comes next; then it is consumed.
    bool atBreak() noexcept
    {
        if (m_at != m_end && *m_at == BREAK) {
            ++m_at;
            return true;
        }
        return false;
    }
    bool atEnd() const noexcept { return m_at == m_end; }
    const unsigned char* position() const noexcept { return m_at; }
    /// What was wrong; a literal.
    const char* why() const noexcept { return m_why; }
    [[nodiscard]] bool fail(const char* why) noexcept
    {
        m_why = why;
        return true;
    }

private:
    static constexpr unsigned char TAGS = 0xC0; ///< the first of the bytes that begin tags and simple values

    [[nodiscard]] bool longItem(Item& item) noexcept;
    [[nodiscard]] bool argument(unsigned info, Item& item) noexcept;
    [[nodiscard]] bool skipContent(const Item& item, unsigned depth) noexcept;

    const unsigned char* m_at;
    const unsigned char* m_end;
    const char* m_why = "";
};

} // namespace kesa::commadapter::protocol::cbor

#endif
