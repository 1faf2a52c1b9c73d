#ifndef BENCH_ALLOCATIONS_H
#define BENCH_ALLOCATIONS_H

#include <atomic>
#include <cstdint>

namespace bench {

/// Where `operator new` of this program counts; null, as at first: it does not. May lie in memory shared with another
/// process.
extern std::atomic<std::uint64_t>* allocationCount;

} // namespace bench

#endif
