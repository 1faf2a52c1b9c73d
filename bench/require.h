#ifndef BENCH_REQUIRE_H
#define BENCH_REQUIRE_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {

/// A benchmark that goes wrong has no result: it ends here, naming what failed.
inline void require(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "benchmark failed: %s (errno: %s)\n", what, std::strerror(errno));
        std::abort();
    }
}

} // namespace bench

#endif
