#ifndef KESA_COMMADAPTER_BACKEND_LOCATORS_H
#define KESA_COMMADAPTER_BACKEND_LOCATORS_H

#include "backend/connection/Destination.h"

#include <kesa/url.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kesa::commadapter {

/// Where a locator leads: an endpoint and the path of a service there.
struct Place {
    Destination destination;
    std::string path;
};

/// Reads and writes locators. What it answers follows from the text, the routes and the transports alone. Any thread.
class Locators {
public:
    Locators(std::map<std::string, std::string> routes, std::vector<std::shared_ptr<transport::ITransport>> transports);

    /// Absent when the locator is malformed, of no known scheme or realm, or a path that no route covers.
    std::optional<Place> find(const url& locator) const;

    /// The locator of a service at an endpoint.
    static url make(const transport::Endpoint& endpoint, std::string_view path);

private:
    std::optional<Place> findRouted(const std::string& path) const;

    const std::map<std::string, std::string> m_routes;
    const std::vector<std::shared_ptr<transport::ITransport>> m_transports;
};

} // namespace kesa::commadapter

#endif
