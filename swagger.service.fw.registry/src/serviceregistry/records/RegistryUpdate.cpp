#include "EnumTable.h"
#include "RecordReader.h"
#include "RecordWriter.h"

#include <kesa/serviceregistry/RegistryUpdate.h>

namespace kesa::serviceregistry {
namespace {

constexpr EnumTable<3> UPDATE_TYPES = {"ADDED", "MODIFIED", "REMOVED"};

constexpr std::string_view UPDATE_WORDS[] = {"UpdateType ", "Element "};
enum UpdateMember : std::size_t { eUPDATE_TYPE, eELEMENT };

} // namespace

RegistryUpdate::RegistryUpdate(UpdateTypeEnum type, std::shared_ptr<ServiceDef> service)
    : updateType(type), element(std::move(service))
{}

bool operator==(const RegistryUpdate& a, const RegistryUpdate& b)
{
    return a.updateType == b.updateType && a.element == b.element;
}

optional<std::string> RegistryUpdate::enumToValue(UpdateTypeEnum type)
{
    return toString(UPDATE_TYPES, type);
}

bool RegistryUpdate::enumToValue(UpdateTypeEnum type, std::string& out)
{
    return assign(enumToValue(type), out);
}

optional<RegistryUpdate::UpdateTypeEnum> RegistryUpdate::valueToUpdateTypeEnum(const std::string& text)
{
    return fromString<UpdateTypeEnum>(UPDATE_TYPES, text);
}

bool RegistryUpdate::valueToEnum(const std::string& text, UpdateTypeEnum& out)
{
    return assign(valueToUpdateTypeEnum(text), out);
}

bool RegistryUpdate::serialize(util::serializer::IStructuredSerializer& out) const
{
    if (out.beginObject() || writeMember(out, "updateType", updateType) || out.memberName("element")) {
        return true;
    }
    if (!element) {
        return obr::ErrorOutput(__FILE__, __LINE__, true)(errors::Error, 5, "std::shared_ptr");
    }
    return writeValue(out, *element) || out.endMember() || out.endObject();
}

bool RegistryUpdate::deserialize(util::serializer::IStructuredPullDeserializer& in)
{
    RequiredMembers required("RegistryUpdate", UPDATE_WORDS);
    const bool failed = readObject(in, [&](std::string_view name) {
        if (name == "updateType") {
            required.found(eUPDATE_TYPE);
            return readValue(in, updateType);
        }
        if (name == "element") {
            required.found(eELEMENT);
            element = std::make_shared<ServiceDef>();
            return readValue(in, *element);
        }
        return in.skipValue();
    });
    return failed || required.check();
}

} // namespace kesa::serviceregistry
