#ifndef UTIL_SERIALIZER_FORMATS_H
#define UTIL_SERIALIZER_FORMATS_H

#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <memory>

namespace util::serializer {

/// The formats a structured value can be written in and read from.
enum class Format { eJSON, eMSGPACK, eQELBIN };

KESA_API std::unique_ptr<IStructuredSerializer> makeSerializer(Format format);
KESA_API std::unique_ptr<IStructuredPullDeserializer> makeDeserializer(Format format);

} // namespace util::serializer

#endif
