#ifndef KESA_MIMETYPES_H
#define KESA_MIMETYPES_H

#include <obr/api.h>

#include <cstdint>
#include <string_view>

namespace kesa::mimetypes {

inline constexpr std::string_view JSON = "application/json";
inline constexpr std::string_view TEXT = "plain/text";
inline constexpr std::string_view OCTETS = "application/octet-stream";
inline constexpr std::string_view MSGPACK = "application/vnd.msgpack";
inline constexpr std::string_view QELBIN = "application/vnd.qelbin";

enum class MimeTypeID : std::uint8_t { eUNKNOWN = 0, eJSON, eTEXT, eOCTETS, eMSGPACK, eQELBIN };

/// Exact names; 0 for anything else.
KESA_API MimeTypeID typename2id(std::string_view name) noexcept;
/// Empty for 0. The characters live as long as the process.
KESA_API std::string_view id2typename(MimeTypeID id) noexcept;

} // namespace kesa::mimetypes

#endif
