#ifndef KESA_PATH_H
#define KESA_PATH_H

#include <obr/api.h>

#include <cstddef>
#include <optional>
#include <string>

namespace kesa {

/// The path of a service, such as "/media/player". It keeps its text as built; equality is equality of the texts.
class KESA_API Path {
public:
    Path() = default;
    explicit Path(std::string text) : m_text(std::move(text)) {}

    const std::string& toString() const noexcept { return m_text; }

    friend bool operator==(const Path& a, const Path& b) noexcept { return a.m_text == b.m_text; }
    friend bool operator!=(const Path& a, const Path& b) noexcept { return !(a == b); }

    /// Begins with '/'.
    static bool isAbsolute(const std::string& path) noexcept;
    /// Absolute, without empty, "." and ".." segments and without a trailing '/' (so "/" is not), printable UTF-8
    /// and at most 4096 bytes: what may stand in a locator, and what a resource may be called.
    static bool isCanonical(const std::string& path) noexcept;
    /// What to tell whoever gave a path that is not canonical, in one sentence.
    static std::string complaintAbout(const std::string& path);
    static constexpr std::size_t MAX_SERVICE_PATH_SIZE = 1024;
    static constexpr std::size_t MAX_SERVICE_SEGMENTS = 64;
    /// The same of a path that no service can have, and empty when one can: it is canonical, has at most so many bytes
    /// and segments, and none of `*?[]{}\`, so that it is a glob that matches itself alone.
    static std::string complaintAboutService(const std::string& path);
    /// `a` and `b` with exactly one '/' between them; `a` when `b` is empty.
    static std::string join(const std::string& a, const std::string& b);
    /// Whether `path` matches `pattern`: segments as they are, "**" for any well-formed absolute path ("/" too, ""
    /// not).
    static bool matches(const std::string& path, const std::string& pattern) noexcept;
    /// `pattern` with its "**" replaced by `path`; for "**" alone the text of `path`.
    static std::string replacePattern(const std::string& pattern, const Path& path);
    /// The index of the segment `wildcard` in `pattern`; absent when there is none.
    static std::optional<std::size_t> indexIntoPathFromPattern(const std::string& pattern, const std::string& wildcard);
    /// The segments of `path` from the index `from` on, without a leading '/'.
    static std::string subpath(const std::string& path, std::size_t from);
    /// `path` with a leading '/'.
    static std::string makeAbsolute(const std::string& path);

private:
    std::string m_text;
};

} // namespace kesa

#endif
