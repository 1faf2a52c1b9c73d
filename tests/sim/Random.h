#ifndef KESA_TESTS_SIM_RANDOM_H
#define KESA_TESTS_SIM_RANDOM_H

#include <obr/Random.h>

#include <cstdint>

namespace kesa::sim {

/// Splitmix64.
struct SeededRandom final : obr::Random {
    std::uint64_t state = 0;

    std::uint64_t next() override
    {
        state += 0x9E3779B97F4A7C15ULL;
        std::uint64_t mixed = state;
        mixed = (mixed ^ (mixed >> 30U)) * 0xBF58476D1CE4E5B9ULL;
        mixed = (mixed ^ (mixed >> 27U)) * 0x94D049BB133111EBULL;
        return mixed ^ (mixed >> 31U);
    }
};

} // namespace kesa::sim

#endif
