#ifndef OBR_RANDOM_H
#define OBR_RANDOM_H

#include <obr/api.h>

#include <cstdint>

namespace obr {

/// The source of every random number in Kesa: UUIDs, jitter, tokens. Tests replace it by a seeded one.
class KESA_API Random {
public:
    virtual ~Random();
    /// 64 random bits. Any thread.
    virtual std::uint64_t next() = 0;
    /// Uniform in [0, bound); 0 for a bound of 0.
    std::uint64_t below(std::uint64_t bound);

    /// The installed source; the kernel's unless replaced.
    static Random& current() noexcept;
    /// Replaces the source for the whole process; null restores the kernel's. Returns the one before. The caller
    /// keeps `random` alive until it is replaced and no run loop is left that may use it.
    static Random* install(Random* random) noexcept;
};

} // namespace obr

#endif
