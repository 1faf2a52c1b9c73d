#ifndef KESA_URL_H
#define KESA_URL_H

#include <obr/api.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace kesa {

/// A locator, `scheme://authority/path`. It keeps the text it was built from: that text is its identity, in
/// equality, as a key and in traces. Nothing in it is normalised; only `scheme` answers in lower case.
class KESA_API url {
public:
    /// Empty, not valid.
    url() = default;
    explicit url(std::string text) { init(std::move(text)); }
    /// The same as building anew from `text`.
    void init(std::string text);

    /// Parses under RFC 3986 and is not empty.
    bool isValid() const noexcept { return m_valid; }
    /// Valid, with scheme and authority.
    bool isAbsolute() const noexcept { return m_valid && m_schemeSize > 0 && m_hasAuthority; }

    /// In lower case, whatever the text has: RFC 3986 makes no difference.
    std::string scheme() const;
    std::string_view authority() const noexcept { return part(m_authorityBegin, m_authoritySize); }
    /// "tcp://h:1" has the path "", "/registry" is its own path.
    std::string path() const { return std::string(part(m_pathBegin, m_pathSize)); }
    bool hasQueryOrFragment() const noexcept { return m_valid && m_pathBegin + m_pathSize < m_text.size(); }

    const std::string& toString() const noexcept { return m_text; }

    friend bool operator==(const url& a, const url& b) noexcept { return a.m_text == b.m_text; }
    friend bool operator!=(const url& a, const url& b) noexcept { return !(a == b); }

private:
    std::string_view part(std::uint32_t begin, std::uint32_t size) const noexcept
    {
        return std::string_view(m_text).substr(begin, size);
    }

    std::string m_text;
    std::uint32_t m_schemeSize = 0;
    std::uint32_t m_authorityBegin = 0;
    std::uint32_t m_authoritySize = 0;
    std::uint32_t m_pathBegin = 0;
    std::uint32_t m_pathSize = 0;
    bool m_valid = false;
    bool m_hasAuthority = false;
};

} // namespace kesa

#endif
