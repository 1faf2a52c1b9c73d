#ifndef UTIL_CONFIG_READDOCUMENT_H
#define UTIL_CONFIG_READDOCUMENT_H

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <string>
#include <vector>

namespace util::config {

enum class Reading { eREAD, eMISSING, eFAILED };

/// The JSON document in `file`, and its `text`. Unless it was read, the last complaint says why not; nothing is
/// recorded.
[[nodiscard]] Reading readDocument(const std::string& file, Value& out, std::vector<Complaint>& complaints,
                                   std::string& text);
[[nodiscard]] Reading readDocument(const std::string& file, Value& out, std::vector<Complaint>& complaints);

} // namespace util::config

#endif
