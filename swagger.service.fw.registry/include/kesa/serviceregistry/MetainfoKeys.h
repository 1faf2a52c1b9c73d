#ifndef KESA_SERVICEREGISTRY_METAINFOKEYS_H
#define KESA_SERVICEREGISTRY_METAINFOKEYS_H

#include <kesa/optional.h>
#include <obr/api.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace kesa::serviceregistry {

// What a registry says of the process that has registered a service, by the kernel's word: whoever sends a record
// cannot set them. Numbers, -1 where they are not known; the last one is true where it cannot be known whether the
// process has the name under "provider", and missing else.
inline constexpr std::string_view PROVIDER_UID = "provider_uid";
inline constexpr std::string_view PROVIDER_GID = "provider_gid";
inline constexpr std::string_view PROVIDER_UNPROVEN = "provider_unproven";

/// The well-known keys of a service's metainfo.
enum class MetainfoKeys : std::uint8_t {
    description = 0,
    external,
    is_dynamic,
    locators,
    provider,
    servicecategory,
    type,
    versions
};

/// A key whose value `true` marks a service as one that every user may see: `{{PUBLIC, true}}`. A registry with a
/// policy goes by that alone.
inline constexpr const char* PUBLIC = "public";

// Exact, case-sensitive; the forms with `out` answer true on failure and leave it alone.
[[nodiscard]] KESA_API bool enumToValue(MetainfoKeys key, std::string& out);
KESA_API optional<std::string> enumToValue(MetainfoKeys key);
[[nodiscard]] KESA_API bool valueToEnum(const std::string& text, MetainfoKeys& out);
KESA_API optional<MetainfoKeys> valueToMetainfoKeys(const std::string& text);

} // namespace kesa::serviceregistry

#endif
