#ifndef KESA_REGISTRY_STORE_OWNER_H
#define KESA_REGISTRY_STORE_OWNER_H

#include <obr/UUID.h>

#include <cstdint>

namespace kesa::registry {

/// Whose a registration is. The instance is the process's own word, which each server hears and could repeat; so it
/// counts only together with what the kernel says of the connection. Equal owners are the same process: what is unknown
/// of both decides nothing.
struct Owner {
    obr::UUID instance; ///< nil: this process
    std::int64_t uid = -1;
    std::int64_t pid = -1;
    std::uint64_t start = 0; ///< of the process with that number

    friend bool operator==(const Owner&, const Owner&) = default;
};

} // namespace kesa::registry

#endif
