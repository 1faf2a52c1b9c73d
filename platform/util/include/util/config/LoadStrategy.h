#ifndef UTIL_CONFIG_LOADSTRATEGY_H
#define UTIL_CONFIG_LOADSTRATEGY_H

namespace util::config {

/// Which of several files counts.
enum class LoadStrategy { eFIRST_FOUND };

} // namespace util::config

#endif
