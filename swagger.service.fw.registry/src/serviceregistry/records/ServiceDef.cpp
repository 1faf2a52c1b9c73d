#include "EnumTable.h"
#include "RecordReader.h"
#include "RecordWriter.h"

#include <kesa/serviceregistry/ServiceDef.h>

namespace kesa::serviceregistry {
namespace {

constexpr EnumTable<4> TYPES = {"pex", "lomo", "gateway", "registry"};

constexpr std::string_view SERVICE_WORDS[] = {"Path ", "Type ", "Versions ", "Locators "};
enum ServiceMember : std::size_t { ePATH, eTYPE, eVERSIONS, eLOCATORS };

bool equal(const optional<obr::UUID>& a, const optional<obr::UUID>& b)
{
    return a.has_value() == b.has_value() && (!a || a->compare(*b) == 0);
}

} // namespace

ServiceDef::ServiceDef(Path servicePath, TypeEnum serviceType, std::vector<std::string> serviceVersions,
                       std::vector<url> serviceLocators)
    : path(std::move(servicePath)), type(serviceType), versions(std::move(serviceVersions)),
      locators(std::move(serviceLocators))
{}

ServiceDef::ServiceDef(Path servicePath, TypeEnum serviceType, std::vector<std::string> serviceVersions,
                       std::vector<url> serviceLocators, optional<obr::UUID> recordId,
                       optional<GenericObject> information, optional<std::vector<std::string>> formats,
                       optional<std::string> domain, optional<std::vector<std::string>> scopes)
    : path(std::move(servicePath)), type(serviceType), versions(std::move(serviceVersions)),
      locators(std::move(serviceLocators)), id(recordId), metainfo(std::move(information)),
      serializationFormats(std::move(formats)), hostDomain(std::move(domain)), scope(std::move(scopes))
{}

bool operator==(const ServiceDef& a, const ServiceDef& b)
{
    return a.path == b.path && a.type == b.type && a.versions == b.versions && a.locators == b.locators &&
           equal(a.id, b.id) && a.metainfo == b.metainfo && a.serializationFormats == b.serializationFormats &&
           a.hostDomain == b.hostDomain && a.scope == b.scope;
}

optional<std::string> ServiceDef::enumToValue(TypeEnum type)
{
    return toString(TYPES, type);
}

bool ServiceDef::enumToValue(TypeEnum type, std::string& out)
{
    return assign(enumToValue(type), out);
}

optional<ServiceDef::TypeEnum> ServiceDef::valueToTypeEnum(const std::string& text)
{
    return fromString<TypeEnum>(TYPES, text);
}

bool ServiceDef::valueToEnum(const std::string& text, TypeEnum& out)
{
    return assign(valueToTypeEnum(text), out);
}

bool ServiceDef::serialize(util::serializer::IStructuredSerializer& out) const
{
    return out.beginObject() || writeMember(out, "path", path) || writeMember(out, "type", type) ||
           writeMember(out, "versions", versions) || writeMember(out, "locators", locators) ||
           writeMember(out, "id", id) || writeMember(out, "metainfo", metainfo) ||
           writeMember(out, "serializationFormats", serializationFormats) ||
           writeMember(out, "hostDomain", hostDomain) || writeMember(out, "scope", scope) || out.endObject();
}

bool ServiceDef::deserialize(util::serializer::IStructuredPullDeserializer& in)
{
    RequiredMembers required("ServiceDef", SERVICE_WORDS);
    const auto readRequired = [&](auto& field, ServiceMember which) {
        required.found(which);
        return readValue(in, field);
    };
    const bool failed = readObject(in, [&](std::string_view name) {
        return name == "path"                   ? readRequired(path, ePATH)
               : name == "type"                 ? readRequired(type, eTYPE)
               : name == "versions"             ? readRequired(versions, eVERSIONS)
               : name == "locators"             ? readRequired(locators, eLOCATORS)
               : name == "id"                   ? readOptional(in, id)
               : name == "metainfo"             ? readOptional(in, metainfo)
               : name == "serializationFormats" ? readOptional(in, serializationFormats)
               : name == "hostDomain"           ? readOptional(in, hostDomain)
               : name == "scope"                ? readOptional(in, scope)
                                                : in.skipValue();
    });
    return failed || required.check();
}

} // namespace kesa::serviceregistry
