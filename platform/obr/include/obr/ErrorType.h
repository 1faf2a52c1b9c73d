#ifndef OBR_ERRORTYPE_H
#define OBR_ERRORTYPE_H

#include <obr/api.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace obr {

/// A family of numbered errors: a constant that knows the text of each of its numbers.
class KESA_API ErrorType {
public:
    /// Makes the text of `number` from its arguments; an unknown number gets a text that names it.
    using TextFunction = std::string (*)(int number, const std::string_view* arguments, std::size_t count);

    constexpr ErrorType(const char* familyName, TextFunction function) noexcept : m_name(familyName), m_text(function)
    {}

    constexpr const char* name() const noexcept { return m_name; }
    std::string text(int number, const std::string_view* arguments, std::size_t count) const
    {
        return m_text(number, arguments, count);
    }

private:
    const char* m_name;
    TextFunction m_text;
};

} // namespace obr

#endif
