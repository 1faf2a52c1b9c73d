#include <kesa/serializer/Factory.h>
#include <util/serializer/formats.h>

#include <optional>

namespace kesa::serializer {

namespace {

std::optional<util::serializer::Format> structuredFormat(mimetypes::MimeTypeID id) noexcept
{
    using mimetypes::MimeTypeID;
    using util::serializer::Format;
    switch (id) {
    case MimeTypeID::eJSON:
        return Format::eJSON;
    case MimeTypeID::eMSGPACK:
        return Format::eMSGPACK;
    case MimeTypeID::eQELBIN:
        return Format::eQELBIN;
    default:
        return std::nullopt;
    }
}

} // namespace

std::unique_ptr<util::serializer::IStructuredSerializer> Factory::createSerializer(mimetypes::MimeTypeID id)
{
    const auto format = structuredFormat(id);
    return format ? util::serializer::makeSerializer(*format) : nullptr;
}

std::unique_ptr<util::serializer::IStructuredPullDeserializer> Factory::createDeserializer(mimetypes::MimeTypeID id)
{
    const auto format = structuredFormat(id);
    return format ? util::serializer::makeDeserializer(*format) : nullptr;
}

} // namespace kesa::serializer
