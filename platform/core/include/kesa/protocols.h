#ifndef KESA_PROTOCOLS_H
#define KESA_PROTOCOLS_H

#include <string_view>

namespace kesa::protocols {

inline constexpr std::string_view PEX = "pex";
inline constexpr std::string_view LOMO = "lomo";
inline constexpr std::string_view REGISTRY = "registry";
/// Stands for a value that is not known.
inline constexpr std::string_view UNDEFINED = "undefined";

} // namespace kesa::protocols

#endif
