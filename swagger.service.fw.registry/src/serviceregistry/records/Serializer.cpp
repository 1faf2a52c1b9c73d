#include "RecordReader.h"
#include "RecordWriter.h"

#include <kesa/core/Serializer.h>
#include <obr/errors.h>

namespace kesa::serializer {
namespace {

using serviceregistry::MetainfoKeys;
using serviceregistry::Query;
using serviceregistry::RegistryUpdate;
using serviceregistry::ServiceDef;

constexpr std::string_view SERVICE_TYPE = "type of service (pex, lomo, gateway, registry)";
constexpr std::string_view UPDATE_TYPE = "type of update (ADDED, MODIFIED, REMOVED)";
constexpr std::string_view METAINFO_KEY = "well-known key of metainfo";

bool report(std::string text, std::string_view what)
{
    text.append(what);
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, text);
}

/// `text` is the string of an enumerator, absent for one that has none.
bool writeEnum(IStructuredSerializer& out, const optional<std::string>& text, std::string_view what)
{
    return text ? out.stringValue(*text) : report("there is no such ", what);
}

/// Reads the string of an enumerator, which `valueToEnum` looks up.
template <class E, class F>
bool readEnum(IStructuredPullDeserializer& in, E& value, std::string_view what, F&& valueToEnum)
{
    std::string text;
    if (in.stringValue(text)) {
        return true;
    }
    return valueToEnum(text, value) && report("'" + text + "' is no ", what);
}

} // namespace

bool serialize(IStructuredSerializer& out, const ServiceDef& value)
{
    return value.serialize(out);
}

bool serialize(IStructuredSerializer& out, const Query& value)
{
    return value.serialize(out);
}

bool serialize(IStructuredSerializer& out, const RegistryUpdate& value)
{
    return value.serialize(out);
}

bool serialize(IStructuredSerializer& out, const std::vector<RegistryUpdate>& value)
{
    return serviceregistry::writeValue(out, value);
}

bool serialize(IStructuredSerializer& out, const ServiceDef::TypeEnum& value)
{
    return writeEnum(out, ServiceDef::enumToValue(value), SERVICE_TYPE);
}

bool serialize(IStructuredSerializer& out, const RegistryUpdate::UpdateTypeEnum& value)
{
    return writeEnum(out, RegistryUpdate::enumToValue(value), UPDATE_TYPE);
}

bool serialize(IStructuredSerializer& out, const MetainfoKeys& value)
{
    return writeEnum(out, enumToValue(value), METAINFO_KEY);
}

bool deserialize(IStructuredPullDeserializer& in, ServiceDef& value)
{
    return value.deserialize(in);
}

bool deserialize(IStructuredPullDeserializer& in, Query& value)
{
    return value.deserialize(in);
}

bool deserialize(IStructuredPullDeserializer& in, RegistryUpdate& value)
{
    return value.deserialize(in);
}

bool deserialize(IStructuredPullDeserializer& in, std::vector<RegistryUpdate>& value)
{
    return serviceregistry::readValue(in, value);
}

bool deserialize(IStructuredPullDeserializer& in, ServiceDef::TypeEnum& value)
{
    return readEnum(in, value, SERVICE_TYPE,
                    [](const auto& text, auto& out) { return ServiceDef::valueToEnum(text, out); });
}

bool deserialize(IStructuredPullDeserializer& in, RegistryUpdate::UpdateTypeEnum& value)
{
    return readEnum(in, value, UPDATE_TYPE,
                    [](const auto& text, auto& out) { return RegistryUpdate::valueToEnum(text, out); });
}

bool deserialize(IStructuredPullDeserializer& in, MetainfoKeys& value)
{
    return readEnum(in, value, METAINFO_KEY, [](const auto& text, auto& out) { return valueToEnum(text, out); });
}

} // namespace kesa::serializer
