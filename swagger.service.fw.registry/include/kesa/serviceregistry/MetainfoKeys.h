#ifndef KESA_SERVICEREGISTRY_METAINFOKEYS_H
#define KESA_SERVICEREGISTRY_METAINFOKEYS_H

#include <kesa/optional.h>
#include <obr/api.h>

#include <cstdint>
#include <string>

namespace kesa::serviceregistry {

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

// Exact, case-sensitive; the forms with `out` answer true on failure and leave it alone.
[[nodiscard]] KESA_API bool enumToValue(MetainfoKeys key, std::string& out);
KESA_API optional<std::string> enumToValue(MetainfoKeys key);
[[nodiscard]] KESA_API bool valueToEnum(const std::string& text, MetainfoKeys& out);
KESA_API optional<MetainfoKeys> valueToMetainfoKeys(const std::string& text);

} // namespace kesa::serviceregistry

#endif
