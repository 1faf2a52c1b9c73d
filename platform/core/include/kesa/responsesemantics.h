#ifndef KESA_RESPONSESEMANTICS_H
#define KESA_RESPONSESEMANTICS_H

#include <string_view>

/// What kind of answer a request asks for, in the header "$response-semantic".
namespace kesa::responsesemantics {

inline constexpr std::string_view PERSISTENT_STREAM = "persistent-stream";
inline constexpr std::string_view SINGLE_RESPONSE = "single-response";
inline constexpr std::string_view EMPTY_RESPONSE = "empty-response";
inline constexpr std::string_view MULTI_RESPONSE = "multi-response";

} // namespace kesa::responsesemantics

#endif
