#include <kesa/Path.h>

#include <obr/utf8.h>

#include <algorithm>
#include <string_view>

namespace kesa {

namespace {

constexpr std::size_t MAX_PATH_SIZE = 4096;
constexpr std::string_view ANY_SEGMENTS = "**";

/// The segments of a path, one by one, without a leading '/'.
class Segments {
public:
    explicit Segments(std::string_view path) noexcept : m_rest(path)
    {
        if (!m_rest.empty() && m_rest[0] == '/') {
            m_rest.remove_prefix(1);
        }
        m_atEnd = m_rest.empty();
    }

    bool atEnd() const noexcept { return m_atEnd; }
    /// What is left, the current segment first.
    std::string_view rest() const noexcept { return m_atEnd ? std::string_view() : m_rest; }
    std::string_view current() const noexcept { return m_rest.substr(0, m_rest.find('/')); }
    void next() noexcept
    {
        const std::size_t slash = m_rest.find('/');
        m_atEnd = slash == std::string_view::npos;
        m_rest.remove_prefix(m_atEnd ? m_rest.size() : slash + 1);
    }

private:
    std::string_view m_rest;
    bool m_atEnd;
};

bool isWellFormed(std::string_view path) noexcept
{
    return !path.empty() && path[0] == '/' && path.find("//") == std::string_view::npos &&
           (path.size() == 1 || path.back() != '/');
}

bool isPrintable(std::string_view text) noexcept
{
    while (!text.empty()) {
        const char32_t character = obr::takeCharacter(text);
        if (character == obr::INVALID_CHARACTER || character < 0x20 || (character >= 0x7F && character < 0xA0)) {
            return false;
        }
    }
    return true;
}

/// Where the segment `wanted` begins in `pattern`; npos when there is none.
std::size_t findSegment(std::string_view pattern, std::string_view wanted) noexcept
{
    for (Segments segments(pattern); !segments.atEnd(); segments.next()) {
        if (segments.current() == wanted) {
            return static_cast<std::size_t>(segments.rest().data() - pattern.data());
        }
    }
    return std::string_view::npos;
}

} // namespace

bool Path::isAbsolute(const std::string& path) noexcept
{
    return !path.empty() && path[0] == '/';
}

bool Path::isCanonical(const std::string& path) noexcept
{
    if (!isWellFormed(path) || path.size() == 1 || path.size() > MAX_PATH_SIZE || !isPrintable(path)) {
        return false;
    }
    for (Segments segments(path); !segments.atEnd(); segments.next()) {
        if (segments.current() == "." || segments.current() == "..") {
            return false;
        }
    }
    return true;
}

std::string Path::complaintAbout(const std::string& path)
{
    if (path.size() > MAX_PATH_SIZE) {
        return "a path has at most " + std::to_string(MAX_PATH_SIZE) + " bytes, and this one " +
               std::to_string(path.size());
    }
    return isPrintable(path)
               ? "'" + path + "' is no path; it begins with '/', has no '//', '.' or '..' and no '/' at its end"
               : "a path is printable UTF-8, and this one is not";
}

std::string Path::complaintAboutService(const std::string& path)
{
    if (path.size() > MAX_SERVICE_PATH_SIZE) {
        return "the path of a service has at most " + std::to_string(MAX_SERVICE_PATH_SIZE) + " bytes, and this one " +
               std::to_string(path.size());
    }
    if (!isCanonical(path)) {
        return complaintAbout(path);
    }
    const std::size_t wildcard = path.find_first_of("*?[]{}\\");
    if (wildcard != std::string::npos) {
        return "'" + path + "' has a '" + path[wildcard] +
               "', which stands for something else where services are asked for by a glob; leave it out";
    }
    const auto segments = static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
    return segments > MAX_SERVICE_SEGMENTS
               ? "the path of a service has at most " + std::to_string(MAX_SERVICE_SEGMENTS) +
                     " segments, and this one " + std::to_string(segments)
               : std::string();
}

std::string Path::join(const std::string& a, const std::string& b)
{
    if (b.empty()) {
        return a;
    }
    const std::size_t aEnd = a.find_last_not_of('/') + 1;
    const std::size_t bBegin = std::min(b.find_first_not_of('/'), b.size());
    return a.substr(0, aEnd).append(1, '/').append(b, bBegin, std::string::npos);
}

bool Path::matches(const std::string& path, const std::string& pattern) noexcept
{
    if (!isWellFormed(path)) {
        return false;
    }
    Segments here(path);
    Segments wanted(pattern);
    // Where to go on when the segments after the last "**" do not fit: that one then takes one segment more.
    Segments retryHere = here;
    Segments retryWanted = wanted;
    bool canRetry = false;
    while (!here.atEnd() || !wanted.atEnd()) {
        if (!wanted.atEnd() && wanted.current() == ANY_SEGMENTS) {
            wanted.next();
            retryHere = here;
            retryWanted = wanted;
            canRetry = true;
        } else if (!here.atEnd() && !wanted.atEnd() && here.current() == wanted.current()) {
            here.next();
            wanted.next();
        } else if (canRetry && !retryHere.atEnd()) {
            retryHere.next();
            here = retryHere;
            wanted = retryWanted;
        } else {
            return false;
        }
    }
    return true;
}

std::string Path::replacePattern(const std::string& pattern, const Path& path)
{
    const std::size_t position = findSegment(pattern, ANY_SEGMENTS);
    if (position == std::string::npos) {
        return pattern;
    }
    const std::string after = pattern.substr(position + ANY_SEGMENTS.size());
    if (position == 0) {
        return path.m_text + after;
    }
    return join(pattern.substr(0, position), path.m_text) + after;
}

std::optional<std::size_t> Path::indexIntoPathFromPattern(const std::string& pattern, const std::string& wildcard)
{
    std::size_t index = 0;
    for (Segments segments(pattern); !segments.atEnd(); segments.next()) {
        if (segments.current() == wildcard) {
            return index;
        }
        ++index;
    }
    return std::nullopt;
}

std::string Path::subpath(const std::string& path, std::size_t from)
{
    Segments segments(path);
    for (; from > 0 && !segments.atEnd(); --from) {
        segments.next();
    }
    return std::string(segments.rest());
}

std::string Path::makeAbsolute(const std::string& path)
{
    return isAbsolute(path) ? path : '/' + path;
}

} // namespace kesa
