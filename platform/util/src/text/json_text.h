#ifndef UTIL_TEXT_JSON_TEXT_H
#define UTIL_TEXT_JSON_TEXT_H

#include <util/ByteBufferWriter.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace util::text {

/// JSON text of single values. `Out` is a `std::string` or a `ByteBufferWriter`.

/// With its quotes; '/' and everything above U+001F stay as they are.
template <class Out>
void appendJsonString(Out& out, std::string_view value);

/// The shortest text that reads back as the same number, never as an integer. `value` is finite.
template <class Out>
void appendReal(Out& out, double value);

extern template void appendJsonString(std::string&, std::string_view);
extern template void appendJsonString(ByteBufferWriter&, std::string_view);
extern template void appendReal(std::string&, double);
extern template void appendReal(ByteBufferWriter&, double);

} // namespace util::text

#endif
