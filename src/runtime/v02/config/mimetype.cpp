#include <kesa/runtime/mimetype.h>

#include "knownNames.h"

namespace kesa::runtime {
namespace {

using v02::isKnownFormat;

std::string knownOrDefault(std::string_view mimeName)
{
    return std::string(isKnownFormat(mimeName) ? mimeName : mimetypes::JSON);
}

} // namespace

std::string findFormat(const std::vector<std::string>& formats)
{
    for (const std::string& format : formats) {
        if (isKnownFormat(format)) {
            return format;
        }
    }
    return std::string(mimetypes::JSON);
}

std::string getMimeType(const serviceregistry::ServiceDef& service)
{
    return service.serializationFormats ? findFormat(*service.serializationFormats) : std::string(mimetypes::JSON);
}

std::string getMimeType(const util::config::Value& value)
{
    for (const util::config::Value& element : value.items()) {
        if (isKnownFormat(element.stringView())) {
            return std::string(element.stringView());
        }
    }
    return knownOrDefault(value.stringView());
}

} // namespace kesa::runtime
