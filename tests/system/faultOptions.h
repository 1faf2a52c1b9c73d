#ifndef KESA_TESTS_SYSTEM_FAULTOPTIONS_H
#define KESA_TESTS_SYSTEM_FAULTOPTIONS_H

#include <cstdint>

namespace kesa::system_test {

struct FaultOptions {
    int count = 100;
    std::uint64_t seed = 1;
    /// Of the registry, in each cell of `SystemGhosts`; 0: the few of the small form.
    int restarts = 0;
};

inline FaultOptions faultOptions;

} // namespace kesa::system_test

#endif
