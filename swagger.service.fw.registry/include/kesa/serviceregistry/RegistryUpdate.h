#ifndef KESA_SERVICEREGISTRY_REGISTRYUPDATE_H
#define KESA_SERVICEREGISTRY_REGISTRYUPDATE_H

#include <kesa/serviceregistry/ServiceDef.h>

#include <cstdint>
#include <memory>
#include <string>

namespace kesa::serviceregistry {

/// One change of one service, as a registry reports it.
class KESA_API RegistryUpdate {
public:
    enum class UpdateTypeEnum : std::uint8_t { ADDED = 0, MODIFIED = 1, REMOVED = 2 };

    RegistryUpdate() = default;
    RegistryUpdate(UpdateTypeEnum type, std::shared_ptr<ServiceDef> service);

    UpdateTypeEnum updateType = UpdateTypeEnum::ADDED;
    /// Shared by the copies of an update, and not changed by them. Null by default; such an update cannot be written.
    std::shared_ptr<ServiceDef> element;

    /// Equal when both refer to the very same element.
    KESA_API friend bool operator==(const RegistryUpdate& a, const RegistryUpdate& b);

    [[nodiscard]] static bool enumToValue(UpdateTypeEnum type, std::string& out);
    static optional<std::string> enumToValue(UpdateTypeEnum type);
    [[nodiscard]] static bool valueToEnum(const std::string& text, UpdateTypeEnum& out);
    static optional<UpdateTypeEnum> valueToUpdateTypeEnum(const std::string& text);

    [[nodiscard]] bool serialize(util::serializer::IStructuredSerializer& out) const;
    [[nodiscard]] bool deserialize(util::serializer::IStructuredPullDeserializer& in);
};

} // namespace kesa::serviceregistry

#endif
