#ifndef BENCH_COMPARISON_H
#define BENCH_COMPARISON_H

#include <functional>
#include <string>

namespace bench {

/// Two ways to do the same, timed in turn so that both meet the same moods of the machine. Each function times one
/// round and answers nanoseconds per operation. Prints one line: medians with their quartiles, and the median of the
/// ratios of neighbouring rounds, which with an aim above 0 is to be that at most.
struct Side {
    std::string name;
    std::function<double()> round;
};
void compare(const std::string& what, const Side& floor, const Side& own, int rounds, double aim = 0);
/// The same, but what counts is how many nanoseconds `own` takes longer.
void compareExcess(const std::string& what, const Side& floor, const Side& own, int rounds, double aimNs);
/// One side alone, in milliseconds, which with an aim above 0 are to be that at most.
void measureAlone(const std::string& what, const Side& own, int rounds, double aimMs = 0);

} // namespace bench

#endif
