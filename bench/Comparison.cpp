#include "Comparison.h"

#include "Measured.h"

#include <fmt/format.h>

#include <vector>

namespace bench {

namespace {

std::string spread(const std::vector<double>& values)
{
    return fmt::format("{:.0f} ns ({:.0f}..{:.0f})", quantile(values, 0.5), quantile(values, 0.25),
                       quantile(values, 0.75));
}

} // namespace

void compare(const std::string& what, const Side& floor, const Side& own, int rounds)
{
    std::vector<double> floors;
    std::vector<double> owns;
    std::vector<double> ratios;
    for (int round = -1; round < rounds; ++round) {
        const double floorNs = floor.round();
        const double ownNs = own.round();
        if (round < 0) {
            continue; // warm-up
        }
        floors.push_back(floorNs);
        owns.push_back(ownNs);
        ratios.push_back(ownNs / floorNs);
    }
    fmt::print("{:<44} {}: {:<24} {}: {:<24} ratio {:.2f}\n", what, floor.name, spread(floors), own.name, spread(owns),
               quantile(ratios, 0.5));
}

} // namespace bench
