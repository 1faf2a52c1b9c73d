#include "Comparison.h"

#include "Measured.h"

#include <fmt/format.h>

#include <cstdio>
#include <utility>
#include <vector>

namespace bench {

namespace {

struct Rounds {
    std::vector<double> floors;
    std::vector<double> owns;
};

Rounds measure(const Side& floor, const Side& own, int rounds)
{
    Rounds result;
    for (int round = -1; round < rounds; ++round) {
        const double floorNs = floor.round();
        const double ownNs = own.round();
        if (round >= 0) { // the first is warm-up
            result.floors.push_back(floorNs);
            result.owns.push_back(ownNs);
        }
    }
    return result;
}

std::string spread(const std::vector<double>& values)
{
    const int digits = quantile(values, 0.5) < 100 ? 1 : 0;
    return fmt::format("{:.{}f} ns ({:.{}f}..{:.{}f})", quantile(values, 0.5), digits, quantile(values, 0.25), digits,
                       quantile(values, 0.75), digits);
}

template <class Combine>
double medianOf(const Rounds& rounds, Combine combine)
{
    std::vector<double> values;
    for (std::size_t i = 0; i < rounds.owns.size(); ++i) {
        values.push_back(combine(rounds.owns[i], rounds.floors[i]));
    }
    return quantile(std::move(values), 0.5);
}

void print(const std::string& what, const Side& floor, const Side& own, const Rounds& rounds, const std::string& result)
{
    fmt::print("{:<44} {:>10}: {:<26} {:>12}: {:<26} {}\n", what, floor.name, spread(rounds.floors), own.name,
               spread(rounds.owns), result);
    std::fflush(stdout);
}

const char* verdict(double value, double aim)
{
    return value <= aim ? "met" : "MISSED";
}

} // namespace

void compare(const std::string& what, const Side& floor, const Side& own, int rounds, double aim)
{
    const Rounds measured = measure(floor, own, rounds);
    const double ratio = medianOf(measured, [](double ownNs, double floorNs) { return ownNs / floorNs; });
    print(what, floor, own, measured,
          aim == 0 ? fmt::format("ratio {:.2f}", ratio)
                   : fmt::format("ratio {:.2f}  <= {} {}", ratio, aim, verdict(ratio, aim)));
}

void compareExcess(const std::string& what, const Side& floor, const Side& own, int rounds, double aimNs)
{
    const Rounds measured = measure(floor, own, rounds);
    const double excess = medianOf(measured, [](double ownNs, double floorNs) { return ownNs - floorNs; });
    print(what, floor, own, measured, fmt::format("{:+.2f} ns  <= {} ns {}", excess, aimNs, verdict(excess, aimNs)));
}

void measureAlone(const std::string& what, const Side& own, int rounds, double aimMs)
{
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) {
        times.push_back(own.round() / 1e6);
    }
    const double median = quantile(times, 0.5);
    fmt::print("{:<44} {:>50}: {:.1f} ms ({:.1f}..{:.1f}){}\n", what, own.name, median, quantile(times, 0.25),
               quantile(times, 0.75), aimMs == 0 ? "" : fmt::format("  <= {} ms {}", aimMs, verdict(median, aimMs)));
    std::fflush(stdout);
}

} // namespace bench
