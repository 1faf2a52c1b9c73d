#ifndef KESA_PATHPATTERNS_H
#define KESA_PATHPATTERNS_H

#include <obr/api.h>

#include <memory>
#include <optional>
#include <string>

namespace kesa {

/// A compiled glob over paths. Within a segment: `*` any characters, `?` one character, `[a-z]` and `[!a-z]` one of
/// a set, `\` takes the next character as it is. `**` as a whole segment: any number of segments, also none. `{a,b}`
/// alternatives, which may nest and span segments. A leading '/' is optional, a trailing one ignored; `/a/**`
/// matches `/a` too; `**` and the empty pattern match everything.
///
/// Matching takes time proportional to pattern times path at most. Copies share the compiled form. Any thread.
class KESA_API PathPatterns {
public:
    /// Absent when `glob` is malformed or larger than its limits; the reason, with the position, is in
    /// `obr::ErrorStorage`.
    static std::optional<PathPatterns> createFromGlob(const std::string& glob);

    bool match(const std::string& path) const;

private:
    class Compiled;
    explicit PathPatterns(std::shared_ptr<const Compiled> compiled) noexcept : m_compiled(std::move(compiled)) {}
    std::shared_ptr<const Compiled> m_compiled;
};

} // namespace kesa

#endif
