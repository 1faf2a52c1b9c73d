#ifndef UTIL_CONFIG_FRAMEWORKPROVIDER_H
#define UTIL_CONFIG_FRAMEWORKPROVIDER_H

#include <obr/api.h>

#include <string>

namespace util::config {

/// Which node, and so which partition, a process belongs to.
class KESA_API FrameworkProvider {
public:
    /// `$KESA_NODE`; else the member of the process, else "*", in `framework.json` beside the configuration; else
    /// "local". True, with a reason, when that document is there and cannot be read.
    [[nodiscard]] static bool getNodenameForProcess(const std::string& process, std::string& partition);
};

} // namespace util::config

#endif
