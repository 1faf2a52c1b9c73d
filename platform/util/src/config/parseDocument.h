#ifndef UTIL_CONFIG_PARSEDOCUMENT_H
#define UTIL_CONFIG_PARSEDOCUMENT_H

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <string_view>
#include <vector>

namespace util::config {

/// JSON text into a value. True on failure: the last complaint then says why, with line and column; nothing is
/// recorded. Keys that stand twice are warnings.
[[nodiscard]] bool parseDocument(std::string_view text, Value& out, std::vector<Complaint>& complaints);

} // namespace util::config

#endif
