#ifndef UTIL_CONFIG_READDOCUMENT_H
#define UTIL_CONFIG_READDOCUMENT_H

#include <util/config/Value.h>

#include <string>
#include <vector>

namespace util::config {

enum class Reading { eREAD, eMISSING, eFAILED };

/// The JSON document in `file`. Unless it was read, `problem` says why not, with file, line and column; nothing is
/// recorded.
[[nodiscard]] Reading readDocument(const std::string& file, Value& out, std::vector<std::string>& duplicateKeys,
                                   std::string& problem);

} // namespace util::config

#endif
