#ifndef UTIL_CONFIG_JSONPOSITIONS_H
#define UTIL_CONFIG_JSONPOSITIONS_H

#include <obr/api.h>
#include <util/config/DocumentPath.h>

#include <cstdint>
#include <string>
#include <unordered_map>

namespace util::config {

/// Where the values of a JSON text stand.
class KESA_API JsonPositions {
public:
    struct Position {
        int line = 0;   ///< from 1; 0: unknown
        int column = 0; ///< in characters
    };

    /// Knows the values up to the first syntax error of `text`. Takes time and memory as the text is long, whatever is
    /// in it.
    explicit JsonPositions(const std::string& text);

    /// Of the key of a member, of an element itself. For a path that is not in the text that of the nearest value
    /// around it.
    Position find(const DocumentPath& path) const;

private:
    std::unordered_map<std::uint64_t, Position> m_positions; ///< by the hash of the path
};

} // namespace util::config

#endif
