#include "backend/Locators.h"

#include "backend/connection/channel.h"

#include <kesa/Path.h>
#include <util/percent.h>

namespace kesa::commadapter {

namespace {

constexpr std::string_view KEPT_IN_PATHS = "/-._~!$&'()*+,;=:@"; // with letters and digits what RFC 3986 allows

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
    std::string path = util::decodePercent(locator.path()).value_or(std::string());
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
    return url(endpoint.toString() + util::encodePercent(path, KEPT_IN_PATHS));
}

} // namespace kesa::commadapter
