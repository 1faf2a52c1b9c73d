#ifndef UTIL_CONFIG_VALUE_H
#define UTIL_CONFIG_VALUE_H

#include <obr/api.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace util::config {

class Dictionary;

/// One value of a document: undefined (absent), null, bool, integer, real, string, array or dictionary. Copies are
/// cheap and share immutable content; a `const Value` may be read from any thread.
///
/// Reads never convert: each `get` answers `true`, and leaves its argument alone, when the value is not of that
/// type or out of its range.
class KESA_API Value {
public:
    using Array = std::vector<Value>;
    using Member = std::pair<std::string, Value>;

    /// Undefined.
    Value() noexcept;
    Value(std::nullptr_t) noexcept;
    Value(bool value) noexcept;
    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    Value(T value) noexcept
    {
        if constexpr (std::is_unsigned_v<T>) {
            setUnsigned(value);
        } else {
            setSigned(value);
        }
    }
    Value(double value) noexcept;
    Value(std::string value);
    Value(std::string_view value);
    Value(const char* value);
    Value(Array value);
    Value(Dictionary value);

    /// What a missing key or index yields. Absent means this, and only this: null is present.
    static const Value& getUndefined() noexcept;
    bool isDefined() const noexcept;
    bool isNull() const noexcept;
    bool isBool() const noexcept;
    bool isInteger() const noexcept;
    bool isReal() const noexcept;
    bool isString() const noexcept;
    bool isArray() const noexcept;
    bool isDictionary() const noexcept;

    /// The member of a dictionary; undefined when there is none, or this is no dictionary.
    const Value& operator[](const char* key) const noexcept { return member(key); }
    const Value& operator[](std::string_view key) const noexcept { return member(key); }
    const Value& operator[](const std::string& key) const noexcept { return member(key); }
    /// The element of an array; undefined when out of range, or this is no array.
    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool>, int> = 0>
    const Value& operator[](T index) const noexcept
    {
        if constexpr (std::is_signed_v<T>) {
            return index < 0 ? getUndefined() : element(static_cast<std::size_t>(index));
        } else {
            return element(static_cast<std::size_t>(index));
        }
    }
    /// 0 for what is no array.
    std::size_t arraySize() const noexcept;
    /// The elements of an array, else nothing.
    const Array& items() const noexcept;
    /// The key/value pairs of a dictionary in ascending byte order of the keys, else nothing.
    const Member* begin() const noexcept;
    const Member* end() const noexcept;
    /// The dictionary, else an empty one.
    const Dictionary& dictionary() const noexcept;

    [[nodiscard]] bool get(bool& out) const noexcept;
    [[nodiscard]] bool get(int& out) const noexcept;
    [[nodiscard]] bool get(unsigned int& out) const noexcept;
    [[nodiscard]] bool get(std::int64_t& out) const noexcept;
    [[nodiscard]] bool get(std::uint64_t& out) const noexcept;
    /// Integers are readable as double, too.
    [[nodiscard]] bool get(double& out) const noexcept;
    [[nodiscard]] bool get(std::string& out) const;
    /// The characters of a string, else empty; valid as long as this value.
    std::string_view stringView() const noexcept;

    /// Text of any value: a string bare, everything else as compact JSON; "undefined" when undefined.
    std::string toText() const;

    KESA_API friend bool operator==(const Value& a, const Value& b) noexcept;
    friend bool operator!=(const Value& a, const Value& b) noexcept { return !(a == b); }

private:
    struct Undefined {};
    using Storage = std::variant<Undefined, std::nullptr_t, bool, std::int64_t, std::uint64_t, double,
                                 std::shared_ptr<const std::string>, std::shared_ptr<const Array>,
                                 std::shared_ptr<const Dictionary>>;

    void setSigned(std::int64_t value) noexcept { m_storage = value; }
    /// Kept as a signed integer whenever it fits, so that equal numbers are equal values.
    void setUnsigned(std::uint64_t value) noexcept
    {
        if (value <= static_cast<std::uint64_t>(INT64_MAX)) {
            m_storage = static_cast<std::int64_t>(value);
        } else {
            m_storage = value;
        }
    }
    const Value& member(std::string_view key) const noexcept;
    const Value& element(std::size_t index) const noexcept;

    Storage m_storage;
};

} // namespace util::config

#endif
