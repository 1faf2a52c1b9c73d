#include "IDocumentParser.h"
#include "IEncoder.h"
#include "PullReader.h"
#include "StructuredWriter.h"

#include <util/serializer/formats.h>

namespace util::serializer {

std::unique_ptr<IStructuredSerializer> makeSerializer(Format format)
{
    switch (format) {
    case Format::eJSON:
        return std::make_unique<StructuredWriter>(jsonEncoder());
    case Format::eMSGPACK:
        return std::make_unique<StructuredWriter>(msgpackEncoder());
    case Format::eQELBIN:
        break;
    }
    return std::make_unique<StructuredWriter>(qelbinEncoder());
}

std::unique_ptr<IStructuredPullDeserializer> makeDeserializer(Format format)
{
    switch (format) {
    case Format::eJSON:
        return std::make_unique<PullReader>(makeJsonParser());
    case Format::eMSGPACK:
        return std::make_unique<PullReader>(makeMsgpackParser());
    case Format::eQELBIN:
        break;
    }
    return std::make_unique<PullReader>(makeQelbinParser());
}

} // namespace util::serializer
