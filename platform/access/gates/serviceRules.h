#ifndef KESA_ACCESS_GATES_SERVICERULES_H
#define KESA_ACCESS_GATES_SERVICERULES_H

#include <cstddef>
#include <string_view>

namespace kesa::access {

/// The resource at which a service with rules of its own says what these let somebody do: docs/protocol.md.
inline constexpr std::string_view SERVICE_RULES = "/.well-known/access";

/// In bytes, of who may do something. It is read before it is known who asks.
inline constexpr std::size_t MOST_OF_QUESTION = 8192;
inline constexpr const char* QUESTION_TOO_LONG = "a question of who may do something has 8192 bytes at most";

} // namespace kesa::access

#endif
