#ifndef KESA_FUZZ_REQUIRE_H
#define KESA_FUZZ_REQUIRE_H

#include <cstdlib>

/// What must hold for every input; the fuzzer reports the end of the process.
inline void require(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

#endif
