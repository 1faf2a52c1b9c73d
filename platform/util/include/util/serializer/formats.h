#ifndef UTIL_SERIALIZER_FORMATS_H
#define UTIL_SERIALIZER_FORMATS_H

#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <cstddef>
#include <memory>

namespace util::serializer {

/// The formats a structured value can be written in and read from: JSON (RFC 8259), MessagePack, and qelbin, which is
/// CBOR (RFC 8949) written with indefinite maps and arrays and shortest integers. All hold the same values: null, bool,
/// 64-bit integers, finite reals, UTF-8 text, arrays, objects with text keys; anything else is refused.
enum class Format { eJSON, eMSGPACK, eQELBIN };

/// How deep arrays and objects may stand in one another, in reading and writing.
inline constexpr std::size_t MAX_DEPTH = 128;

KESA_API std::unique_ptr<IStructuredSerializer> makeSerializer(Format format);
KESA_API std::unique_ptr<IStructuredPullDeserializer> makeDeserializer(Format format);

} // namespace util::serializer

#endif
