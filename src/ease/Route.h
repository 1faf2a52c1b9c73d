#ifndef KESA_EASE_ROUTE_H
#define KESA_EASE_ROUTE_H

#include <kesa/ease/PathParameters.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesa {

/// Takes the first segment off `path`, which has no leading '/'.
inline std::string_view takeSegment(std::string_view& path) noexcept
{
    const std::size_t slash = path.find('/');
    const std::string_view segment = path.substr(0, slash);
    path.remove_prefix(slash == std::string_view::npos ? path.size() : slash + 1);
    return segment;
}

inline std::string_view withoutOuterSlashes(std::string_view path) noexcept
{
    if (!path.empty() && path.front() == '/') {
        path.remove_prefix(1);
    }
    if (!path.empty() && path.back() == '/') {
        path.remove_suffix(1);
    }
    return path;
}

/// A path with parameters, as it is given to a `ResourceHandler`.
class Route {
public:
    struct Segment {
        enum class Kind : char { eTEXT, ePARAMETER, eREST }; // the most particular first
        Kind kind;
        std::string text; ///< or the parameter's name
    };

    explicit Route(std::string_view route);

    const std::vector<Segment>& segments() const noexcept { return m_segments; }

    /// Why this is no route; empty when it is one.
    std::string_view fault() const noexcept;

    /// Of two routes the one with the lesser rank is the more particular. A path matches one of each rank at most.
    std::string rank() const;

    /// What the parameters stand for in `path`, which matches, and is without outer '/'.
    PathParameters parametersOf(std::string_view path) const;

    /// As it was given, with one '/' at its beginning and none at its end.
    std::string text() const;

    /// The path that this route would be for if only its texts had been mistaken: parameters are as in `path`, which is
    /// without outer '/'. Those that `path` is too short for are empty.
    std::string filledFrom(std::string_view path) const;

private:
    std::vector<Segment> m_segments;
    bool m_hasParameters = false;
};

} // namespace kesa

#endif
