#ifndef KESA_REGISTRY_POLICY_RIGHT_H
#define KESA_REGISTRY_POLICY_RIGHT_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kesa::registry {

enum class Right : std::uint8_t { eREGISTER, eSEE };
inline constexpr std::array<std::string_view, 2> RIGHT_NAMES = {"register", "see"};
inline std::string_view nameOf(Right right) noexcept
{
    return RIGHT_NAMES[static_cast<std::size_t>(right)];
}

} // namespace kesa::registry

#endif
