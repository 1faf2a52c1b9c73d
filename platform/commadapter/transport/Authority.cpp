#include "transport/Authority.h"

#include <kesa/processName.h>
#include <obr/Random.h>

#include <fmt/format.h>

#include <algorithm>

namespace kesa::commadapter::transport {

namespace {

constexpr char HEX[] = "0123456789ABCDEF";

bool isPlain(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

int hexDigit(char c) noexcept
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::optional<std::string> decode(std::string_view text)
{
    std::string name;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (isPlain(text[i])) {
            name.push_back(text[i]);
            continue;
        }
        if (text[i] != '%' || text.size() - i < 3) {
            return std::nullopt;
        }
        const int high = hexDigit(text[i + 1]);
        const int low = hexDigit(text[i + 2]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        name.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    return name;
}

} // namespace

std::string encodeProcessName(std::string_view name)
{
    std::string text;
    for (const char c : name) {
        if (isPlain(c) && !(c == '.' && text.empty())) {
            text.push_back(c);
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        text.append({'%', HEX[byte >> 4U], HEX[byte & 15U]});
    }
    return text;
}

std::optional<Endpoint> parseProcessAuthority(const url& locator, std::string_view scheme)
{
    if (!locator.isAbsolute() || locator.scheme() != scheme) {
        return std::nullopt;
    }
    const std::string_view authority = locator.authority();
    const std::size_t plus = authority.find('+');
    auto process = decode(authority.substr(0, plus));
    if (!process || !isProcessName(*process)) {
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
