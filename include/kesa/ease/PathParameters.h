#ifndef KESA_EASE_PATHPARAMETERS_H
#define KESA_EASE_PATHPARAMETERS_H

#include <string_view>
#include <utility>
#include <vector>

namespace kesa {

/// What the parameters of a route stand for in the path of one request. Valid during the call that passes it.
class PathParameters {
public:
    /// Empty when the route has no parameter of that name.
    std::string_view operator[](std::string_view name) const noexcept
    {
        for (const auto& [known, value] : m_values) {
            if (known == name) {
                return value;
            }
        }
        return {};
    }

    void add(std::string_view name, std::string_view value) { m_values.emplace_back(name, value); }
    void clear() noexcept { m_values.clear(); }

private:
    std::vector<std::pair<std::string_view, std::string_view>> m_values;
};

} // namespace kesa

#endif
