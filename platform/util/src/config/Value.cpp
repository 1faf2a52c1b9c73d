#include "src/text/json_text.h"

#include <util/config/Dictionary.h>
#include <util/config/Value.h>

#include <limits>
#include <utility>

namespace util::config {
namespace {

template <class T>
[[nodiscard]] bool copyOut(const T* stored, T& out)
{
    if (stored == nullptr) {
        return true;
    }
    out = *stored;
    return false;
}

template <class T>
[[nodiscard]] bool narrow(const Value& value, T& out) noexcept
{
    std::int64_t wide = 0;
    if (value.get(wide) || !std::in_range<T>(wide)) {
        return true;
    }
    out = static_cast<T>(wide);
    return false;
}

void appendJson(std::string& out, const Value& value);

void appendArray(std::string& out, const Value::Array& items)
{
    out += '[';
    for (const Value& item : items) {
        if (&item != items.data()) {
            out += ',';
        }
        appendJson(out, item);
    }
    out += ']';
}

void appendDictionary(std::string& out, const Dictionary& dictionary)
{
    out += '{';
    for (const Value::Member& member : dictionary) {
        if (&member != dictionary.begin()) {
            out += ',';
        }
        text::appendJsonString(out, member.first);
        out += ':';
        appendJson(out, member.second);
    }
    out += '}';
}

void appendNumber(std::string& out, const Value& value)
{
    std::int64_t integer = 0;
    std::uint64_t large = 0;
    double real = 0;
    if (!value.get(integer)) {
        out += std::to_string(integer);
    } else if (!value.get(large)) {
        out += std::to_string(large);
    } else if (!value.get(real)) {
        text::appendReal(out, real);
    }
}

void appendJson(std::string& out, const Value& value)
{
    bool flag = false;
    if (value.isString()) {
        text::appendJsonString(out, value.stringView());
    } else if (value.isArray()) {
        appendArray(out, value.items());
    } else if (value.isDictionary()) {
        appendDictionary(out, value.dictionary());
    } else if (value.isNull() || !value.isDefined()) {
        out += "null";
    } else if (!value.get(flag)) {
        out += flag ? "true" : "false";
    } else {
        appendNumber(out, value);
    }
}

} // namespace

Value::Value() noexcept = default;
Value::Value(std::nullptr_t) noexcept : m_storage(nullptr) {}
Value::Value(bool value) noexcept : m_storage(value) {}
Value::Value(double value) noexcept : m_storage(value) {}
Value::Value(std::string value) : m_storage(std::make_shared<const std::string>(std::move(value))) {}
Value::Value(std::string_view value) : m_storage(std::make_shared<const std::string>(value)) {}
Value::Value(const char* value) : Value(std::string_view(value)) {}
Value::Value(Array value) : m_storage(std::make_shared<const Array>(std::move(value))) {}
Value::Value(Dictionary value) : m_storage(std::make_shared<const Dictionary>(std::move(value))) {}

const Value& Value::getUndefined() noexcept
{
    // Never destroyed: what static objects hold may refer to it.
    static const Value* const undefined = new Value;
    return *undefined;
}

bool Value::isDefined() const noexcept
{
    return !std::holds_alternative<Undefined>(m_storage);
}

bool Value::isNull() const noexcept
{
    return std::holds_alternative<std::nullptr_t>(m_storage);
}

bool Value::isBool() const noexcept
{
    return std::holds_alternative<bool>(m_storage);
}

bool Value::isInteger() const noexcept
{
    return std::holds_alternative<std::int64_t>(m_storage) || std::holds_alternative<std::uint64_t>(m_storage);
}

bool Value::isReal() const noexcept
{
    return std::holds_alternative<double>(m_storage);
}

bool Value::isString() const noexcept
{
    return std::holds_alternative<std::shared_ptr<const std::string>>(m_storage);
}

bool Value::isArray() const noexcept
{
    return std::holds_alternative<std::shared_ptr<const Array>>(m_storage);
}

bool Value::isDictionary() const noexcept
{
    return std::holds_alternative<std::shared_ptr<const Dictionary>>(m_storage);
}

std::size_t Value::arraySize() const noexcept
{
    return items().size();
}

const Value::Array& Value::items() const noexcept
{
    static const Array* const empty = new Array;
    const auto* const array = std::get_if<std::shared_ptr<const Array>>(&m_storage);
    return array != nullptr ? **array : *empty;
}

const Value::Member* Value::begin() const noexcept
{
    return dictionary().begin();
}

const Value::Member* Value::end() const noexcept
{
    return dictionary().end();
}

const Dictionary& Value::dictionary() const noexcept
{
    static const Dictionary* const empty = new Dictionary;
    const auto* const dictionary = std::get_if<std::shared_ptr<const Dictionary>>(&m_storage);
    return dictionary != nullptr ? **dictionary : *empty;
}

const Value& Value::member(std::string_view key) const noexcept
{
    return dictionary()[key];
}

const Value& Value::element(std::size_t index) const noexcept
{
    const Array& array = items();
    return index < array.size() ? array[index] : getUndefined();
}

bool Value::get(bool& out) const noexcept
{
    return copyOut(std::get_if<bool>(&m_storage), out);
}

bool Value::get(int& out) const noexcept
{
    return narrow(*this, out);
}

bool Value::get(unsigned int& out) const noexcept
{
    return narrow(*this, out);
}

bool Value::get(std::int64_t& out) const noexcept
{
    return copyOut(std::get_if<std::int64_t>(&m_storage), out);
}

bool Value::get(std::uint64_t& out) const noexcept
{
    return copyOut(std::get_if<std::uint64_t>(&m_storage), out) && narrow(*this, out);
}

bool Value::get(double& out) const noexcept
{
    if (const auto* const small = std::get_if<std::int64_t>(&m_storage)) {
        out = static_cast<double>(*small);
        return false;
    }
    if (const auto* const large = std::get_if<std::uint64_t>(&m_storage)) {
        out = static_cast<double>(*large);
        return false;
    }
    return copyOut(std::get_if<double>(&m_storage), out);
}

bool Value::get(std::string& out) const
{
    const auto* const string = std::get_if<std::shared_ptr<const std::string>>(&m_storage);
    return copyOut(string != nullptr ? string->get() : nullptr, out);
}

std::string_view Value::stringView() const noexcept
{
    const auto* const string = std::get_if<std::shared_ptr<const std::string>>(&m_storage);
    return string != nullptr ? std::string_view(**string) : std::string_view();
}

std::string Value::toText() const
{
    if (isString()) {
        return std::string(stringView());
    }
    if (!isDefined()) {
        return "undefined";
    }
    std::string text;
    appendJson(text, *this);
    return text;
}

bool operator==(const Value& a, const Value& b) noexcept
{
    if (a.m_storage.index() != b.m_storage.index()) {
        return false;
    }
    if (a.isString()) {
        return a.stringView() == b.stringView();
    }
    if (a.isArray()) {
        return a.items() == b.items();
    }
    if (a.isDictionary()) {
        return a.dictionary() == b.dictionary();
    }
    const auto* const flag = std::get_if<bool>(&a.m_storage);
    const auto* const small = std::get_if<std::int64_t>(&a.m_storage);
    const auto* const large = std::get_if<std::uint64_t>(&a.m_storage);
    const auto* const real = std::get_if<double>(&a.m_storage);
    return (flag == nullptr || *flag == std::get<bool>(b.m_storage)) &&
           (small == nullptr || *small == std::get<std::int64_t>(b.m_storage)) &&
           (large == nullptr || *large == std::get<std::uint64_t>(b.m_storage)) &&
           (real == nullptr || *real == std::get<double>(b.m_storage));
}

} // namespace util::config
