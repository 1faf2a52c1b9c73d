#include <kesa/url.h>

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <limits>
#include <utility>

// A parser of RFC 3986 references. It only finds where the components lie and whether they hold forbidden
// characters; it decodes nothing, and normalises nothing but the scheme when it is asked for.

namespace kesa {

namespace {

bool isAlpha(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}
bool isHexDigit(char c) noexcept
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
bool isOneOf(char c, std::string_view set) noexcept
{
    for (const char one : set) { // a handful: `find` would call `memchr`
        if (one == c) {
            return true;
        }
    }
    return false;
}

/// By table: every locator that is read is checked character by character.
constexpr std::array<bool, 256> makeUnreservedOrSubDelims() noexcept
{
    std::array<bool, 256> is{};
    for (const char c :
         std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-._~!$&'()*+,;=")) {
        is[static_cast<unsigned char>(c)] = true;
    }
    return is;
}
constexpr std::array<bool, 256> UNRESERVED_OR_SUB_DELIMS = makeUnreservedOrSubDelims();

bool isUnreservedOrSubDelim(char c) noexcept
{
    return UNRESERVED_OR_SUB_DELIMS[static_cast<unsigned char>(c)];
}

/// Each character is unreserved, a sub-delimiter, percent-encoded or one of `also`.
bool isMadeOf(std::string_view text, std::string_view also) noexcept
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (i + 2 >= text.size() || !isHexDigit(text[i + 1]) || !isHexDigit(text[i + 2])) {
                return false;
            }
            i += 2;
        } else if (!isUnreservedOrSubDelim(text[i]) && !isOneOf(text[i], also)) {
            return false;
        }
    }
    return true;
}

bool isIpv6(std::string_view text) noexcept
{
    char terminated[INET6_ADDRSTRLEN];
    if (text.size() >= sizeof terminated || text.find('\0') != std::string_view::npos) {
        return false; // inet_pton would take a zero byte for the end
    }
    std::memcpy(terminated, text.data(), text.size());
    terminated[text.size()] = '\0';
    in6_addr address;
    return inet_pton(AF_INET6, terminated, &address) == 1;
}

/// "v1.name": a form reserved for addresses to come.
bool isFutureAddress(std::string_view text) noexcept
{
    const std::size_t dot = text.find('.');
    if (text.empty() || (text[0] != 'v' && text[0] != 'V') || dot == std::string_view::npos || dot < 2) {
        return false;
    }
    for (const char c : text.substr(1, dot - 1)) {
        if (!isHexDigit(c)) {
            return false;
        }
    }
    const std::string_view name = text.substr(dot + 1);
    return !name.empty() && name.find('%') == std::string_view::npos && isMadeOf(name, ":");
}

bool isPort(std::string_view text) noexcept
{
    for (const char c : text) {
        if (!isDigit(c)) {
            return false;
        }
    }
    return true;
}

/// [userinfo "@"] host [":" port]
bool isAuthority(std::string_view text) noexcept
{
    if (const std::size_t at = text.find('@'); at != std::string_view::npos) {
        if (!isMadeOf(text.substr(0, at), ":")) {
            return false;
        }
        text.remove_prefix(at + 1);
    }
    if (!text.empty() && text[0] == '[') {
        const std::size_t close = text.find(']');
        if (close == std::string_view::npos) {
            return false;
        }
        const std::string_view address = text.substr(1, close - 1);
        const std::string_view rest = text.substr(close + 1);
        return (isIpv6(address) || isFutureAddress(address)) &&
               (rest.empty() || (rest[0] == ':' && isPort(rest.substr(1))));
    }
    const std::size_t colon = text.find(':');
    return isMadeOf(text.substr(0, colon), {}) && (colon == std::string_view::npos || isPort(text.substr(colon + 1)));
}

bool isScheme(std::string_view text) noexcept
{
    for (const char c : text) {
        if (!isAlpha(c) && !isDigit(c) && !isOneOf(c, "+-.")) {
            return false;
        }
    }
    return !text.empty() && isAlpha(text[0]);
}

} // namespace

void url::init(std::string text)
{
    *this = url();
    m_text = std::move(text);
    if (m_text.empty() || m_text.size() > std::numeric_limits<std::uint32_t>::max()) {
        return;
    }
    const std::string_view all = m_text;
    const auto until = [all](std::string_view delimiters, std::size_t from) {
        while (from < all.size() && !isOneOf(all[from], delimiters)) {
            ++from;
        }
        return from;
    };

    std::size_t schemeSize = 0;
    std::size_t position = 0;
    if (const std::size_t colon = until(":/?#", 0); colon < all.size() && all[colon] == ':') {
        schemeSize = colon;
        position = colon + 1;
        if (!isScheme(all.substr(0, colon))) {
            return; // nor may the first segment of a relative path hold a colon
        }
    }
    const bool hasAuthority = all.substr(position, 2) == "//";
    const std::size_t authorityBegin = hasAuthority ? position + 2 : position;
    const std::size_t pathBegin = hasAuthority ? until("/?#", authorityBegin) : position;
    const std::size_t pathEnd = until("?#", pathBegin);
    const std::size_t fragment = until("#", pathEnd);
    const std::string_view authorityText = all.substr(authorityBegin, pathBegin - authorityBegin);
    const std::string_view query = all.substr(pathEnd, fragment - pathEnd);
    if ((hasAuthority && !isAuthority(authorityText)) || !isMadeOf(all.substr(pathBegin, pathEnd - pathBegin), ":@/") ||
        !isMadeOf(query, ":@/?") || (fragment < all.size() && !isMadeOf(all.substr(fragment + 1), ":@/?"))) {
        return;
    }
    m_schemeSize = static_cast<std::uint32_t>(schemeSize);
    m_authorityBegin = static_cast<std::uint32_t>(authorityBegin);
    m_authoritySize = static_cast<std::uint32_t>(authorityText.size());
    m_pathBegin = static_cast<std::uint32_t>(pathBegin);
    m_pathSize = static_cast<std::uint32_t>(pathEnd - pathBegin);
    m_hasAuthority = hasAuthority;
    m_valid = true;
}

std::string url::scheme() const
{
    std::string scheme(part(0, m_schemeSize));
    for (char& c : scheme) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return scheme;
}

} // namespace kesa
