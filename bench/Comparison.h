#ifndef BENCH_COMPARISON_H
#define BENCH_COMPARISON_H

#include <functional>
#include <string>

namespace bench {

/// Two ways to do the same, timed in turn so that both meet the same moods of the machine. Each function times one
/// round and answers nanoseconds per operation. Prints one line: medians with their quartiles, and the median of the
/// ratios of neighbouring rounds.
struct Side {
    std::string name;
    std::function<double()> round;
};
void compare(const std::string& what, const Side& floor, const Side& own, int rounds);

} // namespace bench

#endif
