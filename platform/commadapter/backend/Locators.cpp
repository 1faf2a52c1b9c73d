#include "backend/Locators.h"

#include "backend/channel.h"

#include <kesa/Path.h>

namespace kesa::commadapter {

namespace {

constexpr std::string_view HEX = "0123456789ABCDEF";

/// What RFC 3986 allows in a path as it is.
bool isPathCharacter(char c) noexcept
{
    constexpr std::string_view PUNCTUATION = "/-._~!$&'()*+,;=:@";
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           PUNCTUATION.find(c) != std::string_view::npos;
}

std::string encodePath(std::string_view path)
{
    std::string text;
    for (const char c : path) {
        if (isPathCharacter(c)) {
            text += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            text += {'%', HEX[byte >> 4U], HEX[byte & 15U]};
        }
    }
    return text;
}

int hexValue(char c) noexcept
{
    const auto found = HEX.find(c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c);
    return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

/// A valid `url` has two hexadecimal digits behind every '%'.
std::string decodePath(std::string_view text)
{
    std::string path;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            path += static_cast<char>(hexValue(text[i + 1]) * 16 + hexValue(text[i + 2]));
            i += 2;
        } else {
            path += text[i];
        }
    }
    return path;
}

} // namespace

Locators::Locators(std::map<std::string, std::string> routes,
                   std::vector<std::shared_ptr<transport::ITransport>> transports)
    : m_routes(std::move(routes)), m_transports(std::move(transports))
{}

std::optional<Place> Locators::find(const url& locator) const
{
    if (!locator.isValid() || locator.hasQueryOrFragment()) {
        return std::nullopt;
    }
    if (!locator.isAbsolute()) {
        return locator.scheme().empty() ? findRouted(locator.path()) : std::nullopt;
    }
    std::string path = decodePath(locator.path());
    if (!Path::isCanonical(path)) {
        return std::nullopt;
    }
    for (const auto& transport : m_transports) {
        if (transport->scheme() != locator.scheme()) {
            continue;
        }
        auto endpoint = transport->parse(locator);
        if (endpoint && transport->canHandle(*endpoint)) {
            return Place{{transport, std::move(*endpoint)}, std::move(path)};
        }
    }
    return std::nullopt;
}

/// The longest route that covers the path; what follows it goes on behind the route's locator.
std::optional<Place> Locators::findRouted(const std::string& path) const
{
    std::size_t length = path.size();
    while (length > 0) {
        const auto route = m_routes.find(path.substr(0, length));
        if (route != m_routes.end()) {
            const url locator(route->second + path.substr(length));
            return locator.isAbsolute() ? find(locator) : std::nullopt;
        }
        length = path.rfind('/', length - 1);
        if (length == std::string::npos) {
            break;
        }
    }
    KESA_TRACE(CHANNEL, 3, "[locator] '%s' has no scheme and no route: name its locator under \"comm\", \"routes\"",
               path.c_str());
    return std::nullopt;
}

url Locators::make(const transport::Endpoint& endpoint, std::string_view path)
{
    return url(endpoint.toString() + encodePath(path));
}

} // namespace kesa::commadapter
