#ifndef KESA_SERIALIZER_FACTORY_H
#define KESA_SERIALIZER_FACTORY_H

#include <kesa/mimetypes.h>
#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <memory>

namespace kesa::serializer {

class KESA_API Factory {
public:
    /// Null for formats that have no structure: only JSON, MessagePack and qelbin do.
    static std::unique_ptr<util::serializer::IStructuredSerializer> createSerializer(mimetypes::MimeTypeID id);
    static std::unique_ptr<util::serializer::IStructuredPullDeserializer> createDeserializer(mimetypes::MimeTypeID id);
};

} // namespace kesa::serializer

#endif
