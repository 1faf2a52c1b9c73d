#ifndef KESA_RUNTIME_V02_CONFIG_UNSUPPORTEDREGISTRYKEY_H
#define KESA_RUNTIME_V02_CONFIG_UNSUPPORTEDREGISTRYKEY_H

#include <kesa/runtime/v02/KesaConfigAccessor.h>

namespace kesa::runtime::v02 {

/// The key by which the document asks for a registry, in this or another process; null when it does not. There is no
/// registry yet, so a runtime does not start with such a document.
inline const char* unsupportedRegistryKey(const KesaConfigAccessor& config)
{
    return config.useRemoteRegistry() ? "use_registry" : nullptr;
}

} // namespace kesa::runtime::v02

#endif
