#include "globs/SplitGlob.h"

#include <algorithm>

namespace kesa::access {

namespace {

constexpr std::string_view WILDCARDS = "*?[{\\";

/// Reads one segment, up to a '/' outside of alternatives.
class SegmentReader {
public:
    explicit SegmentReader(std::string_view glob) noexcept : m_glob(glob) {}

    std::size_t end() const noexcept { return m_next; }

    /// False when the segment may stand for anything but exactly one segment of a path.
    bool read() noexcept
    {
        for (; m_next < m_glob.size(); ++m_next) {
            const char c = m_glob[m_next];
            if (c == '/') {
                if (m_depth == 0) {
                    return m_isOneSegment;
                }
                m_isOneSegment = false;
            }
            take(c);
        }
        return m_isOneSegment;
    }

private:
    void take(char c) noexcept
    {
        const bool beginsAlternative = m_beginsAlternative;
        m_beginsAlternative = false;
        switch (c) {
        case '\\':
            ++m_next;
            m_isOneSegment = m_isOneSegment && (m_next >= m_glob.size() || m_glob[m_next] != '/');
            break;
        case '[':
            skipSet();
            break;
        case '*':
            m_isOneSegment = m_isOneSegment && (m_depth == 0 || m_glob.substr(m_next, 2) != "**");
            break;
        case '{':
            ++m_depth;
            m_beginsAlternative = true;
            break;
        case ',':
        case '}':
            if (m_depth > 0) {
                // With an empty alternative the segment as a whole may be empty, that is, not be there.
                m_isOneSegment = m_isOneSegment && !beginsAlternative;
                m_beginsAlternative = c == ',';
                m_depth -= c == '}' ? 1 : 0;
            }
            break;
        default:
            break;
        }
    }

    /// To the set's ']', which does not end it as its first character.
    void skipSet() noexcept
    {
        ++m_next;
        if (m_glob.substr(m_next, 1) == "!") {
            ++m_next;
        }
        for (bool isFirst = true; m_next < m_glob.size(); ++m_next, isFirst = false) {
            if (m_glob[m_next] == ']' && !isFirst) {
                return;
            }
            if (m_glob[m_next] == '\\') {
                ++m_next;
            }
        }
    }

    std::string_view m_glob;
    std::size_t m_next = 0;
    int m_depth = 0;
    bool m_beginsAlternative = false;
    bool m_isOneSegment = true;
};

} // namespace

SplitGlob::SplitGlob(std::string_view glob)
{
    if (glob.empty()) {
        segments.emplace_back("**");
        return;
    }
    while (true) {
        glob.remove_prefix(std::min(glob.find_first_not_of('/'), glob.size()));
        if (glob.empty()) {
            return;
        }
        SegmentReader reader(glob);
        if (!reader.read()) {
            hasRest = true;
            return;
        }
        segments.emplace_back(glob.substr(0, reader.end()));
        glob.remove_prefix(std::min(reader.end(), glob.size()));
    }
}

bool SplitGlob::isName(std::string_view segment) noexcept
{
    return literalPrefix(segment).size() == segment.size();
}

std::string_view SplitGlob::literalPrefix(std::string_view segment) noexcept
{
    return segment.substr(0, segment.find_first_of(WILDCARDS));
}

std::string SplitGlob::pathPrefix() const
{
    std::string prefix;
    for (const std::string& segment : segments) {
        if (!isName(segment)) {
            break;
        }
        prefix += '/';
        prefix += segment;
    }
    return prefix.empty() ? "/" : prefix;
}

bool SplitGlob::isPath() const noexcept
{
    return !hasRest && std::all_of(segments.begin(), segments.end(), isName);
}

} // namespace kesa::access
