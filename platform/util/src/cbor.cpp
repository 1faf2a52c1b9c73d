#include <util/cbor.h>

#include <cmath>

namespace util::cbor {

double Reader::real(const Item& item) noexcept
{
    if (item.info == 27) {
        double value = 0;
        std::memcpy(&value, &item.argument, sizeof value);
        return value;
    }
    if (item.info == 26) {
        const auto bits = static_cast<std::uint32_t>(item.argument);
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return static_cast<double>(value);
    }
    const auto bits = static_cast<unsigned>(item.argument);
    const int exponent = static_cast<int>(bits >> 10U & 31U);
    const auto fraction = static_cast<double>(bits & 1023U);
    const double size = exponent == 0    ? std::ldexp(fraction, -24)
                        : exponent != 31 ? std::ldexp(fraction + 1024, exponent - 25)
                        : fraction > 0   ? std::nan("")
                                         : HUGE_VAL;
    return (bits & 0x8000U) == 0 ? size : -size;
}

bool Reader::skip(unsigned depth) noexcept
{
    Item next;
    return item(next) || skipContent(next, depth);
}

bool Reader::skipContent(const Item& item, unsigned depth) noexcept
{
    std::string_view content;
    if (item.major == Major::eBYTES || item.major == Major::eTEXT) {
        return string(item, content);
    }
    if (item.major != Major::eARRAY && item.major != Major::eMAP) {
        return false;
    }
    if (depth == 0) {
        return fail("nested too deeply");
    }
    for (std::uint64_t i = 0; item.isIndefinite ? !atBreak() : i < item.argument; ++i) {
        if (item.major == Major::eMAP) {
            Item key;
            if (this->item(key)) {
                return true;
            }
            if (key.major != Major::eTEXT) {
                return fail("key of an inner map is not text");
            }
            if (string(key, content)) {
                return true;
            }
        }
        if (skip(depth - 1)) {
            return true;
        }
    }
    return false;
}

} // namespace util::cbor
