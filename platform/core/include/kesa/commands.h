#ifndef KESA_COMMANDS_H
#define KESA_COMMANDS_H

#include <obr/api.h>

#include <string_view>

namespace kesa::commands {

inline constexpr std::string_view RETRIEVE = "retrieve";
inline constexpr std::string_view UPDATE = "update";
inline constexpr std::string_view DELETE = "delete";
inline constexpr std::string_view INSERT = "insert";
/// Asks only whether the service answers, and how long that takes; it does nothing there.
inline constexpr std::string_view PING = "ping";

/// 0 to 3 in the order above, -1 for anything else.
KESA_API int toId(std::string_view name) noexcept;

} // namespace kesa::commands

#endif
