#ifndef KESA_ACCESS_GLOBS_SPLITGLOB_H
#define KESA_ACCESS_GLOBS_SPLITGLOB_H

#include <obr/api.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesa::access {

/// A well-formed glob over paths, taken apart where one segment of it stands for one segment of the path.
struct KESA_API SplitGlob {
    explicit SplitGlob(std::string_view glob);

    /// Each a name, a glob within the segment, "*" or "**".
    std::vector<std::string> segments;
    /// What follows the segments cannot be taken apart, such as alternatives that span segments.
    bool hasRest = false;

    static bool isName(std::string_view segment) noexcept;
    /// The characters a segment begins with, whatever its wildcards stand for.
    static std::string_view literalPrefix(std::string_view segment) noexcept;

    /// What every matching path begins with.
    std::string pathPrefix() const;
    /// Only the path prefix itself matches.
    bool isPath() const noexcept;
};

} // namespace kesa::access

#endif
