#ifndef KESA_ACCESS_GATES_SERVICERULES_H
#define KESA_ACCESS_GATES_SERVICERULES_H

#include <string_view>

namespace kesa::access {

/// The resource at which a service with rules of its own says what these let somebody do: docs/protocol.md.
inline constexpr std::string_view SERVICE_RULES = "/.well-known/access";

} // namespace kesa::access

#endif
