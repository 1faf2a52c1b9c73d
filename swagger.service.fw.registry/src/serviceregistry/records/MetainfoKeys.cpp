#include "EnumTable.h"

#include <kesa/serviceregistry/MetainfoKeys.h>

namespace kesa::serviceregistry {
namespace {

// Ascending: looked up by binary search.
constexpr EnumTable<8> NAMES = {"description", "external",        "is_dynamic", "locators",
                                "provider",    "servicecategory", "type",       "versions"};

} // namespace

optional<std::string> enumToValue(MetainfoKeys key)
{
    return toString(NAMES, key);
}

bool enumToValue(MetainfoKeys key, std::string& out)
{
    return assign(enumToValue(key), out);
}

optional<MetainfoKeys> valueToMetainfoKeys(const std::string& text)
{
    const auto* const found = std::lower_bound(NAMES.begin(), NAMES.end(), text);
    if (found == NAMES.end() || *found != text) {
        return nullopt;
    }
    return static_cast<MetainfoKeys>(found - NAMES.begin());
}

bool valueToEnum(const std::string& text, MetainfoKeys& out)
{
    return assign(valueToMetainfoKeys(text), out);
}

} // namespace kesa::serviceregistry
