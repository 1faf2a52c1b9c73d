#include "src/text/json_text.h"

#include <util/config/Complaint.h>

namespace util::config {

std::string Complaint::words() const
{
    return advice.empty() ? text : text + "; " + advice;
}

std::string Complaint::sentence(const std::string& source) const
{
    std::string sentence = source;
    if (line > 0) {
        sentence.append(source.empty() ? "" : ":").append(std::to_string(line) + ":" + std::to_string(column));
    }
    sentence.append(sentence.empty() ? "" : ": ");
    sentence.append(toText(path)).append(path.empty() ? "" : ": ");
    return sentence.append(words());
}

std::string excerpt(std::string_view text)
{
    constexpr std::size_t MOST = 256;
    if (text.size() <= MOST) {
        return std::string(text);
    }
    std::size_t end = MOST;
    while (end > MOST - 4 && (static_cast<unsigned char>(text[end]) & 0xc0U) == 0x80) {
        --end; // inside of a character
    }
    return std::string(text.substr(0, end)).append("...");
}

std::string quoted(const Value& value)
{
    if (!value.isString()) {
        return excerpt(value.toText());
    }
    std::string json;
    text::appendJsonString(json, value.stringView());
    return excerpt(json);
}

std::string described(const Value& value)
{
    if (value.isArray()) {
        return value.arraySize() == 0 ? "an empty list" : "a list";
    }
    if (value.isDictionary()) {
        return "an object";
    }
    return (value.isString() ? "the text " : value.isInteger() || value.isReal() ? "the number " : "") + quoted(value);
}

} // namespace util::config
