#ifndef KESA_ACCESS_RULES_IDENTITY_H
#define KESA_ACCESS_RULES_IDENTITY_H

#include <cstdint>
#include <string>
#include <tuple>

namespace kesa::access {

/// Who asks, by the kernel's word.
struct Identity {
    std::int64_t uid = -1; ///< -1: unknown
    std::int64_t gid = -1;
    std::string process; ///< empty: it has not proven its name

    friend bool operator==(const Identity&, const Identity&) = default;
    friend bool operator<(const Identity& a, const Identity& b)
    {
        return std::tie(a.uid, a.gid, a.process) < std::tie(b.uid, b.gid, b.process);
    }
};

} // namespace kesa::access

#endif
