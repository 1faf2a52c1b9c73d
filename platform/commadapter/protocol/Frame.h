#ifndef KESA_COMMADAPTER_PROTOCOL_FRAME_H
#define KESA_COMMADAPTER_PROTOCOL_FRAME_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kesa::commadapter::protocol {

inline constexpr std::uint16_t LOWEST_VERSION = 2;
inline constexpr std::uint16_t HIGHEST_VERSION = 2;

inline constexpr std::size_t HEADER_BYTES = 16;
inline constexpr std::size_t FRAME_BYTES = 64U << 10U;      ///< head and body in one frame; a larger message is cut
inline constexpr std::size_t MAX_HEAD_BYTES = 60U << 10U;   ///< so that every head fits into its first fragment
inline constexpr std::uint32_t STREAM_WINDOW = 64U << 10U;  ///< of a peer that does not say another
inline constexpr std::size_t REQUEST_WINDOW = 256U << 10U;  ///< of the requests of a connection
inline constexpr std::size_t MAX_PATH_BYTES = 4096;         ///< of an attached path
inline constexpr std::size_t INLINE_BODY_BYTES = 4U << 10U; ///< bodies up to this are copied, larger ones are not
inline constexpr std::size_t MAX_INTERLEAVED = 16;          ///< fragmented messages of one side under way at once

enum class Kind : std::uint8_t {
    eHELLO = 1,
    eATTACH,
    eATTACHED,
    eDETACHED,
    eREQUEST,
    eNEXT,
    eERROR,
    eCOMPLETED,
    eCANCEL,
    ePING,
    ePONG,
    eGOODBYE,
    eCREDIT,
    eREQUEST_CREDIT,
};

inline constexpr std::uint8_t FLAG_MORE = 1;           ///< the message goes on in a later frame of its stream
inline constexpr std::uint8_t FLAG_MAY_BE_IGNORED = 2; ///< whoever does not know the kind skips the frame

/// What a value of so many bytes, head and body, takes of a stream's window.
inline constexpr std::size_t chargeOf(std::size_t content) noexcept
{
    return HEADER_BYTES + content;
}

/// What a request takes of the connection's: a small one costs the server about that much.
inline constexpr std::size_t costOf(std::size_t content) noexcept
{
    return 256 + content;
}

/// The 16 bytes in front of each frame.
struct FrameHeader {
    std::uint32_t length = 0; ///< of what follows: head and body
    std::uint8_t kind = 0;
    std::uint8_t flags = 0;
    std::uint16_t head = 0;
    std::uint32_t stream = 0;
    std::uint32_t target = 0; ///< number of the attached path; in answers the status, in credit the bytes

    bool hasMore() const noexcept { return (flags & FLAG_MORE) != 0; }
    std::size_t body() const noexcept { return length - head; }
};

namespace detail {

template <class T>
T littleEndian(T value) noexcept
{
    if constexpr (std::endian::native == std::endian::big) {
        auto* const bytes = reinterpret_cast<unsigned char*>(&value);
        std::reverse(bytes, bytes + sizeof value);
    }
    return value;
}

template <class T>
void put(unsigned char* to, T value) noexcept
{
    value = littleEndian(value);
    std::memcpy(to, &value, sizeof value);
}

template <class T>
void get(const unsigned char* from, T& value) noexcept
{
    std::memcpy(&value, from, sizeof value);
    value = littleEndian(value);
}

} // namespace detail

inline void writeHeader(unsigned char* to, const FrameHeader& header) noexcept
{
    detail::put(to, header.length);
    detail::put(to + 4, header.kind);
    detail::put(to + 5, header.flags);
    detail::put(to + 6, header.head);
    detail::put(to + 8, header.stream);
    detail::put(to + 12, header.target);
}

inline FrameHeader readHeader(const unsigned char* from) noexcept
{
    FrameHeader header;
    detail::get(from, header.length);
    detail::get(from + 4, header.kind);
    detail::get(from + 5, header.flags);
    detail::get(from + 6, header.head);
    detail::get(from + 8, header.stream);
    detail::get(from + 12, header.target);
    return header;
}

} // namespace kesa::commadapter::protocol

#endif
