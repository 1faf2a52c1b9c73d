#include "transport/Authority.h"

#include <kesa/processName.h>
#include <obr/Random.h>
#include <util/percent.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::commadapter::transport {

namespace {

constexpr std::string_view KEPT_IN_NAMES = "._-";

bool isPlain(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           KEPT_IN_NAMES.find(c) != std::string_view::npos;
}

} // namespace

std::string encodeProcessName(std::string_view name)
{
    std::string text = util::encodePercent(name, KEPT_IN_NAMES);
    return text.rfind('.', 0) == 0 ? "%2E" + text.substr(1) : text; // no hidden files, no "..", as files of that name
}

std::optional<Endpoint> parseProcessAuthority(const url& locator, std::string_view scheme)
{
    if (!locator.isAbsolute() || locator.scheme() != scheme) {
        return std::nullopt;
    }
    const std::string_view authority = locator.authority();
    const std::size_t plus = authority.find('+');
    const std::string_view encoded = authority.substr(0, plus);
    auto process = util::decodePercent(encoded);
    if (!process || !std::all_of(encoded.begin(), encoded.end(), [](char c) { return c == '%' || isPlain(c); }) ||
        !isProcessName(*process)) {
        return std::nullopt;
    }
    Endpoint endpoint{std::string(scheme), std::move(*process), {}, {}};
    if (plus != std::string_view::npos) {
        const std::string_view realm = authority.substr(plus + 1);
        if (realm.empty() || !std::all_of(realm.begin(), realm.end(), isPlain)) {
            return std::nullopt;
        }
        endpoint.realm = realm;
    }
    return endpoint;
}

std::string makeRealm()
{
    return fmt::format("{:016x}", obr::Random::current().next());
}

std::string Endpoint::toString() const
{
    std::string text = encodeProcessName(process);
    if (!realm.empty()) {
        text += '+';
        text += realm;
    }
    if (!address.empty()) {
        text = text.empty() ? address : text + '@' + address;
    }
    return scheme + "://" + text;
}

} // namespace kesa::commadapter::transport
