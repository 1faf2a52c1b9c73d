#ifndef UTIL_CBOR_H
#define UTIL_CBOR_H

#include <obr/api.h>
#include <obr/utf8.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// The items of CBOR (RFC 8949), written and read in place: they are on the path of every message. `Out` is what has
/// `unsigned char* extend(std::size_t)`, which answers where so many new bytes at its end begin.
namespace util::cbor {

enum class Major : std::uint8_t { eUNSIGNED, eNEGATIVE, eBYTES, eTEXT, eARRAY, eMAP, eTAG, eSIMPLE };

inline constexpr unsigned char INDEFINITE_ARRAY = 0x9F;
inline constexpr unsigned char INDEFINITE_MAP = 0xBF;
inline constexpr unsigned char BREAK = 0xFF;
inline constexpr unsigned char FALSE_ITEM = 0xF4;
inline constexpr unsigned char TRUE_ITEM = 0xF5;
inline constexpr unsigned char NULL_ITEM = 0xF6;
inline constexpr unsigned char DOUBLE_ITEM = 0xFB;
template <class Out>
void putByte(Out& out, unsigned char byte)
{
    *out.extend(1) = byte;
}

/// An item whose argument does not fit into its first byte.
template <class Out>
[[gnu::noinline]] void putLongItem(Out& out, Major major, std::uint64_t argument)
{
    const unsigned log = argument <= 0xFF ? 0 : argument <= 0xFFFF ? 1 : argument <= 0xFFFFFFFF ? 2 : 3;
    const unsigned bytes = 1U << log;
    unsigned char* const at = out.extend(1 + bytes);
    at[0] = static_cast<unsigned char>(static_cast<unsigned>(major) << 5U | (24 + log));
    for (unsigned i = 0; i < bytes; ++i) {
        at[1 + i] = static_cast<unsigned char>(argument >> (8 * (bytes - 1 - i)));
    }
}

/// The first byte of an item with its argument, in the shortest form. Nearly all of a head's are of one byte.
template <class Out>
inline void putItem(Out& out, Major major, std::uint64_t argument)
{
    if (argument < 24) {
        putByte(out, static_cast<unsigned char>(static_cast<unsigned>(major) << 5U | argument));
    } else {
        putLongItem(out, major, argument);
    }
}

template <class Out>
void putInteger(Out& out, std::int64_t value)
{
    if (value >= 0) {
        putItem(out, Major::eUNSIGNED, static_cast<std::uint64_t>(value));
    } else {
        putItem(out, Major::eNEGATIVE, ~static_cast<std::uint64_t>(value));
    }
}

/// Of 64 bits, whatever the value.
template <class Out>
void putReal(Out& out, double value)
{
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    unsigned char* const at = out.extend(1 + sizeof bits);
    at[0] = DOUBLE_ITEM;
    for (unsigned i = 0; i < sizeof bits; ++i) {
        at[1 + i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
    }
}

template <class Out>
void putText(Out& out, std::string_view text)
{
    putItem(out, Major::eTEXT, text.size());
    if (!text.empty()) {
        std::memcpy(out.extend(text.size()), text.data(), text.size());
    }
}

/// Reads items from the front of some bytes. Operations answer `true` on failure, after which only `why` is of use.
/// Tags are passed over; of the simple values there are false, true, null and the numbers with a fraction.
class KESA_API Reader {
public:
    Reader(const unsigned char* data, std::size_t size) noexcept : m_at(data), m_end(data + size) {}

    struct Item {
        Major major = Major::eSIMPLE;
        unsigned char info = 0;    ///< the rest of its first byte: which simple value, how wide a number
        bool isIndefinite = false; ///< an array, map or string that goes on until `atBreak`
        std::uint64_t argument = 0;
    };
    /// The first part of the next item.
    [[nodiscard]] bool item(Item& item) noexcept
    {
        // Nearly all items of a head are of one byte.
        if (m_at != m_end && (*m_at & 31U) < 24 && *m_at < TAGS) {
            const auto info = static_cast<unsigned char>(*m_at & 31U);
            item = {static_cast<Major>(*m_at >> 5U), info, false, info};
            ++m_at;
            return false;
        }
        return longItem(item);
    }
    /// A number with a fraction, of any width, which `item` is.
    static double real(const Item& item) noexcept;
    /// The characters or bytes of a string item, which has a definite length; text is UTF-8.
    [[nodiscard]] bool string(const Item& item, std::string_view& content) noexcept
    {
        if (item.isIndefinite) {
            return fail("indefinite length of a wrong item");
        }
        if (item.argument > static_cast<std::size_t>(m_end - m_at)) {
            return fail("it ends inside a value");
        }
        content = {reinterpret_cast<const char*>(m_at), static_cast<std::size_t>(item.argument)};
        if (item.major == Major::eTEXT && !obr::isUtf8(content)) {
            return fail("text is not UTF-8");
        }
        m_at += content.size();
        return false;
    }
    /// The next item as a whole, whatever it is, of which keys are text. It nests at most `depth` deep.
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
    [[nodiscard]] bool readArgument(Item& item) noexcept;
    [[nodiscard]] bool skipContent(const Item& item, unsigned depth) noexcept;

    const unsigned char* m_at;
    const unsigned char* m_end;
    const char* m_why = "";
};

inline bool Reader::readArgument(Item& item) noexcept
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

inline bool Reader::longItem(Item& item) noexcept
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

} // namespace util::cbor

#endif
