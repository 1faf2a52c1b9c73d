#ifndef UTIL_CONFIG_DICTIONARY_H
#define UTIL_CONFIG_DICTIONARY_H

#include <util/config/Value.h>

#include <initializer_list>
#include <utility>
#include <vector>

namespace util::config {

/// Keys with values, in ascending byte order of the keys. Copies share their content until one of them is changed; each
/// copy may be used on another thread. References into a dictionary end with its next change.
class KESA_API Dictionary {
public:
    Dictionary() noexcept = default;
    Dictionary(const Dictionary& other) noexcept;
    Dictionary(Dictionary&& other) noexcept : m_content(std::exchange(other.m_content, nullptr)) {}
    Dictionary& operator=(const Dictionary& other) noexcept;
    Dictionary& operator=(Dictionary&& other) noexcept
    {
        std::swap(m_content, other.m_content);
        return *this;
    }
    ~Dictionary();
    /// The last of equal keys wins.
    Dictionary(std::initializer_list<Value::Member> members);
    explicit Dictionary(std::vector<Value::Member> members);

    /// Sets the value of `key`, replacing one that is there.
    void set(std::string_view key, Value value);
    /// The same as `set`.
    void add(std::string_view key, Value value) { set(key, std::move(value)); }
    void erase(std::string_view key);

    /// Undefined when there is none.
    const Value& operator[](std::string_view key) const noexcept;
    const Value& operator[](const char* key) const noexcept { return (*this)[std::string_view(key)]; }
    bool contains(std::string_view key) const noexcept { return (*this)[key].isDefined(); }
    std::size_t size() const noexcept;
    bool empty() const noexcept { return size() == 0; }
    const Value::Member* begin() const noexcept;
    const Value::Member* end() const noexcept;

    KESA_API friend bool operator==(const Dictionary& a, const Dictionary& b) noexcept;
    friend bool operator!=(const Dictionary& a, const Dictionary& b) noexcept { return !(a == b); }

private:
    struct Content;

    Content& writable();
    void release() noexcept;

    Content* m_content = nullptr; // null: empty
};

} // namespace util::config

#endif
