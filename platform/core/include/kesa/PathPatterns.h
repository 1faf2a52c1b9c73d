#ifndef KESA_PATHPATTERNS_H
#define KESA_PATHPATTERNS_H

#include <obr/api.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kesa {

/// A compiled glob over paths. The grammar, on UTF-8 characters:
///
///     glob        = "" | sequence          "" and "**" match everything
///     sequence    = { item | "/" }         a leading and a trailing "/" are ignored, "//" is the same as "/"
///     item        = "**"                   a whole segment: any number of segments, also none; "/a/**" matches "/a"
///     too
///                 | "*"                    any characters of a segment, also none
///                 | "?"                    one character of a segment
///                 | "[" ["!"] ranges "]"   one character of a segment that is (with "!": is not) in one of the ranges
///                 | "{" sequence { "," sequence } "}"
///                 | character              itself; "\" takes the character after it as it is
///     ranges      = character ["-" character] ...    "]" as the first and "-" as first or last stand for themselves
///
/// Alternatives nest up to 32 deep, may span segments and may be empty: "/a{,/b/**}" is "/a" or what is below "/a/b".
/// "}", "," and "]" outside of what they end stand for themselves. "/" matches the path "/" only.
///
/// A glob holds at most 4096 bytes, and at most 1024 characters when it is more than a path or a path with "/**".
/// Matching takes time proportional to glob times path at most. Copies share the compiled form. Any thread.
class KESA_API PathPatterns {
public:
    /// Absent when `glob` is malformed or larger than its limits; the reason, with the position (of the character, from
    /// 1 on), is in `obr::ErrorStorage`.
    static std::optional<PathPatterns> createFromGlob(const std::string& glob);

    bool match(const std::string& path) const;

    // For who answers many globs of others and has to bound what they cost him. A step is one of the matcher's, some
    // nanoseconds.
    /// The same, and adds to `steps` how many it took: one at least.
    bool match(std::string_view path, std::size_t& steps) const;
    /// The most steps that matching `paths` paths of together `bytes` bytes takes.
    std::size_t cost(std::size_t bytes, std::size_t paths = 1) const;
    /// About how many bytes the compiled form holds.
    std::size_t memory() const noexcept;

private:
    class Compiled;
    explicit PathPatterns(std::shared_ptr<const Compiled> compiled) noexcept : m_compiled(std::move(compiled)) {}
    std::shared_ptr<const Compiled> m_compiled;
};

} // namespace kesa

#endif
