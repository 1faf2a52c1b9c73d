#ifndef KESA_TESTS_SYSTEM_FAULTOPTIONS_H
#define KESA_TESTS_SYSTEM_FAULTOPTIONS_H

#include <cstdint>

namespace kesa::system_test {

struct FaultOptions {
    int count = 100;
    std::uint64_t seed = 1;
    int minutes = 0;
};

inline FaultOptions faultOptions;

} // namespace kesa::system_test

#endif
