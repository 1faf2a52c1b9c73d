// Any text as a locator: it is kept as it is, and what is valid is the sum of its parts.
#include "require.h"

#include <kesa/url.h>

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(data, data + size);
    const kesa::url locator(text);
    require(locator.toString() == text);
    if (!locator.isValid()) {
        require(!locator.isAbsolute() && locator.path().empty() && locator.authority().empty());
        return 0;
    }
    for (const char c : text) {
        require(c > ' ' && c != 0x7F);
    }
    const std::string scheme = locator.scheme();
    std::string sum = text.substr(0, scheme.size());
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        require(scheme[i] == (sum[i] >= 'A' && sum[i] <= 'Z' ? sum[i] - 'A' + 'a' : sum[i]));
    }
    sum.append(sum.empty() ? "" : ":");
    if (text.compare(sum.size(), 2, "//") == 0) {
        sum.append("//").append(locator.authority());
        require(locator.isAbsolute() == !scheme.empty());
        require(locator.path().empty() || locator.path()[0] == '/');
    }
    sum += locator.path();
    require(text.compare(0, sum.size(), sum) == 0);
    require(locator.hasQueryOrFragment() == (sum.size() < text.size()));
    require(!locator.hasQueryOrFragment() || text[sum.size()] == '?' || text[sum.size()] == '#');
    return 0;
}
