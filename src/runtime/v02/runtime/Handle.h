#ifndef KESA_RUNTIME_V02_HANDLE_H
#define KESA_RUNTIME_V02_HANDLE_H

#include <cstddef>
#include <cstdint>
#include <functional>

namespace kesa::runtime::v02 {

/// Identifies one subscription for good. The address is that of a handler, which traces print; it comes back as soon as
/// the handler is freed, while a `Disposable`, a table or a queued event still names it. The number never does.
struct Handle {
    const void* address = nullptr;
    std::uint64_t number = 0;

    friend bool operator==(const Handle&, const Handle&) = default;
};

struct HandleHash {
    std::size_t operator()(const Handle& handle) const noexcept { return std::hash<std::uint64_t>()(handle.number); }
};

} // namespace kesa::runtime::v02

#endif
