#ifndef UTIL_CONFIG_DOCUMENTPATH_H
#define UTIL_CONFIG_DOCUMENTPATH_H

#include <obr/api.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace util::config {

/// The way from the root of a document to one of its values: keys of objects and indexes of lists. Empty: the root.
using DocumentPath = std::vector<std::variant<std::string, std::size_t>>;

/// As people write it: "services[2].type".
KESA_API std::string toText(const DocumentPath& path);

/// The key as paths have it: of a very long one the beginning, since each value below it repeats it.
inline std::string_view shortenedKey(std::string_view key) noexcept
{
    return key.substr(0, 256);
}

/// Where a value is met on the way down from the root. Costs nothing; the path is made only to be told. Parents and
/// keys outlive it.
struct Place {
    const Place* parent = nullptr; ///< null: the root
    std::string_view key = {};
    std::size_t index = 0;
    bool isElement = false; ///< of a list: the index counts, else the key

    static Place member(const Place& parent, std::string_view key) noexcept { return {&parent, key, 0, false}; }
    static Place element(const Place& parent, std::size_t index) noexcept { return {&parent, {}, index, true}; }
    KESA_API DocumentPath path() const;
};

} // namespace util::config

#endif
