#include "peerText.h"

#include <kesa/reasonOf.h>
#include <util/config/Dictionary.h>

#include <fmt/format.h>

#include <utility>

namespace kesactl {

using util::config::Dictionary;
using util::config::Value;

std::string shortened(std::string_view text, std::size_t most)
{
    if (text.size() <= most) {
        return std::string(text);
    }
    std::size_t end = most;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80) { // not inside of a character
        --end;
    }
    return fmt::format("{}... ({} bytes more)", text.substr(0, end), text.size() - end);
}

Value withShortTexts(const Value& value)
{
    if (value.isString()) {
        return Value(shortened(value.stringView()));
    }
    if (value.isArray()) {
        Value::Array all;
        for (const Value& each : value.items()) {
            all.push_back(withShortTexts(each));
        }
        return Value(std::move(all));
    }
    if (value.isDictionary()) {
        Dictionary all;
        for (const auto& [key, each] : value.dictionary()) {
            all.set(shortened(key), withShortTexts(each));
        }
        return Value(std::move(all));
    }
    return value;
}

std::string saidBy(const kesa::Response& error)
{
    return shortened(kesa::reasonOf(error), LONGEST_REASON);
}

} // namespace kesactl
