#ifndef UTIL_CONFIG_PARSEDOCUMENT_H
#define UTIL_CONFIG_PARSEDOCUMENT_H

#include <util/config/Value.h>

#include <string>
#include <string_view>
#include <vector>

namespace util::config {

/// JSON text into a value. True on failure: `problem` says "LINE:COLUMN: what"; nothing is recorded.
[[nodiscard]] bool parseDocument(std::string_view text, Value& out, std::vector<std::string>& duplicateKeys,
                                 std::string& problem);

} // namespace util::config

#endif
