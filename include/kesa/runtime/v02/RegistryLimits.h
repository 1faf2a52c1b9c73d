#ifndef KESA_RUNTIME_V02_REGISTRYLIMITS_H
#define KESA_RUNTIME_V02_REGISTRYLIMITS_H

#include <cstdint>

namespace kesa::runtime::v02 {

/// The "registry" settings of the document: how much a process that hosts the registry keeps for those who ask it.
struct RegistryLimits {
    /// Bytes of memory for the requests of one user. Root, and the user that the registry runs as, are not held to it.
    std::uint64_t m_maxUserBytes = std::uint64_t{8} << 20U;
    /// For those of all users. Half of them are kept for root and the user that the registry runs as.
    std::uint64_t m_maxBytes = std::uint64_t{512} << 20U;
};

} // namespace kesa::runtime::v02

#endif
