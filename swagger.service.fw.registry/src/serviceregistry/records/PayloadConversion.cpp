#include <kesa/core/PayloadConversion.h>

namespace kesa::serializer {
namespace {

bool reportNoFormat(std::string_view mimeName)
{
    return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 16, mimeName);
}

} // namespace

std::unique_ptr<IStructuredSerializer> createSerializerFor(std::string_view mimeName)
{
    auto created = Factory::createSerializer(mimetypes::typename2id(mimeName));
    if (!created) {
        reportNoFormat(mimeName);
    }
    return created;
}

std::unique_ptr<IStructuredPullDeserializer> createDeserializerFor(const Payload& payload)
{
    auto created = Factory::createDeserializer(mimetypes::typename2id(payload.getMimeType()));
    if (!created) {
        reportNoFormat(payload.getMimeType());
    }
    return created;
}

} // namespace kesa::serializer
