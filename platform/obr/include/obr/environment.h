#ifndef OBR_ENVIRONMENT_H
#define OBR_ENVIRONMENT_H

#include <obr/api.h>

#include <string>

namespace obr {

/// The variable's text; empty when it is unset, or when the process has more rights than who started it.
KESA_API std::string environment(const std::string& name);

/// Whether the process has more rights than who started it (setuid, capabilities), who is then not to decide what it
/// does.
KESA_API bool hasMoreRightsThanStarter() noexcept;

} // namespace obr

#endif
