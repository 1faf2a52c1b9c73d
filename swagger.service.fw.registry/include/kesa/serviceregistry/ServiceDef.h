#ifndef KESA_SERVICEREGISTRY_SERVICEDEF_H
#define KESA_SERVICEREGISTRY_SERVICEDEF_H

#include <kesa/GenericObject.h>
#include <kesa/Path.h>
#include <kesa/optional.h>
#include <kesa/url.h>
#include <obr/UUID.h>
#include <util/serializer/IStructuredPullDeserializer.h>
#include <util/serializer/IStructuredSerializer.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kesa::serviceregistry {

/// What is known about one service.
class KESA_API ServiceDef {
public:
    /// The kind of service interface.
    enum class TypeEnum : std::uint8_t { pex = 0, lomo = 1, gateway = 2, registry = 3 };

    ServiceDef() = default;
    ServiceDef(Path servicePath, TypeEnum serviceType, std::vector<std::string> serviceVersions,
               std::vector<url> serviceLocators);
    ServiceDef(Path servicePath, TypeEnum serviceType, std::vector<std::string> serviceVersions,
               std::vector<url> serviceLocators, optional<obr::UUID> recordId, optional<GenericObject> information,
               optional<std::vector<std::string>> formats, optional<std::string> domain,
               optional<std::vector<std::string>> scopes);

    Path path; ///< absolute
    TypeEnum type = TypeEnum::pex;
    std::vector<std::string> versions;                       ///< of the interface, such as "1.0.0"
    std::vector<url> locators;                               ///< where the service can be reached
    optional<obr::UUID> id;                                  ///< of this record
    optional<GenericObject> metainfo;                        ///< free keys; well-known ones in `MetainfoKeys`
    optional<std::vector<std::string>> serializationFormats; ///< mime types it understands, preferred first
    optional<std::string> hostDomain;
    optional<std::vector<std::string>> scope;

    KESA_API friend bool operator==(const ServiceDef& a, const ServiceDef& b);

    // String forms of the type: exact, case-sensitive. The first form answers true on failure and leaves `out` alone.
    [[nodiscard]] static bool enumToValue(TypeEnum type, std::string& out);
    static optional<std::string> enumToValue(TypeEnum type);
    [[nodiscard]] static bool valueToEnum(const std::string& text, TypeEnum& out);
    static optional<TypeEnum> valueToTypeEnum(const std::string& text);

    [[nodiscard]] bool serialize(util::serializer::IStructuredSerializer& out) const;
    /// Into this record; use it only after success. See `kesa/core/Serializer.h`.
    [[nodiscard]] bool deserialize(util::serializer::IStructuredPullDeserializer& in);
};

} // namespace kesa::serviceregistry

#endif
