#ifndef KESACTL_JSONPOSITIONS_H
#define KESACTL_JSONPOSITIONS_H

#include <string>
#include <unordered_map>

namespace kesactl {

/// Where the values of a JSON text stand. Paths are written as in "services[2].type".
class JsonPositions {
public:
    struct Position {
        int line = 0;   ///< from 1; 0: unknown
        int column = 0; ///< in characters
    };

    /// Knows the values up to the first syntax error of `text`.
    explicit JsonPositions(const std::string& text);

    /// Of the key of a member, of an element itself. For a path that is not in the text that of the nearest value
    /// around it.
    Position find(std::string path) const;

private:
    std::unordered_map<std::string, Position> m_positions;
};

} // namespace kesactl

#endif
