// Calls between two processes beside what the machine can do without Kesa. Kesa and the floor are measured in turn,
// each time in processes of their own; a ratio is the median of the ratios of neighbouring measurements.
//     kesa_bench_call [rounds [seconds per measurement]]
#include "RunDirectory.h"
#include "apart.h"
#include "floors.h"
#include "kesa_calls.h"

#include <fmt/format.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {

using bench::Measured;

struct Aim {
    const char* quantity;
    double Measured::*member;
    bool isRate;
    double limit; ///< of the ratio of Kesa to the floor: at most, of a rate at least; 0: none
};
Aim median(double limit = 0)
{
    return {"median", &Measured::medianNs, false, limit};
}
Aim p99(double limit = 0)
{
    return {"p99", &Measured::p99Ns, false, limit};
}
Aim cpu(double limit = 0)
{
    return {"CPU of both", &Measured::cpuNsPerOp, false, limit};
}
Aim rate(double limit = 0)
{
    return {"rate", &Measured::perSecond, true, limit};
}

struct Row {
    const char* what;
    Measured (*own)(double seconds);
    const char* floorName;
    Measured (*floor)(double seconds);
    std::vector<Aim> aims;
};

std::vector<Row> rows()
{
    using namespace bench;
    return {
        {"64 B, caller blocked in get", blockedCalls, "(2)", handedOverCall, {median(1.2), p99(1.5), cpu(1.25)}},
        {"64 B, issued in the answer's handler", callsInHandler, "(2c)", callOnOneLoop, {median(1.25), p99(), cpu()}},
        {"64 B, 64 outstanding", outstandingRequests, "(3)", outstandingCalls, {rate(2), cpu()}},
        {"64 B, stream pushed on the loop", streamFromLoop, "(3)", outstandingCalls, {rate(3), cpu()}},
        {"64 B, stream pushed by a thread", streamFromThread, "(3)", outstandingCalls, {rate(3), cpu()}},
        {"1 MiB both ways", largeCalls, "(3m)", largeMessages, {rate(0.8), cpu()}},
        {"resolve to first answer", resolvesToFirstAnswer, "raw", connectAndTwoRoundTrips, {median(2), p99(), cpu()}},
    };
}

std::string inUnits(const Aim& aim, double value)
{
    return aim.isRate ? fmt::format("{:.0f}/s", value) : fmt::format("{:.1f} us", value / 1e3);
}

std::string verdict(const Aim& aim, double ratio)
{
    if (aim.limit == 0) {
        return "";
    }
    const bool isMet = aim.isRate ? ratio >= aim.limit : ratio <= aim.limit;
    return fmt::format("{} {:<5} {}", aim.isRate ? ">=" : "<=", aim.limit, isMet ? "met" : "MISSED");
}

double medianOf(const std::vector<Measured>& all, double Measured::*member)
{
    std::vector<double> values;
    for (const Measured& one : all) {
        values.push_back(one.*member);
    }
    return bench::quantile(std::move(values), 0.5);
}

void measure(const Row& row, int rounds, double seconds)
{
    std::vector<Measured> owns;
    std::vector<Measured> floors;
    for (int round = 0; round < rounds; ++round) {
        floors.push_back(bench::apart([&] { return row.floor(seconds); }));
        owns.push_back(bench::apart([&] { return row.own(seconds); }));
    }
    const char* what = row.what;
    for (const Aim& aim : row.aims) {
        std::vector<double> ratios;
        for (std::size_t i = 0; i < owns.size(); ++i) {
            ratios.push_back(owns[i].*aim.member / (floors[i].*aim.member));
        }
        const double ratio = bench::quantile(ratios, 0.5);
        fmt::print("{:<37} {:<12} {:>12} {:>5} {:>12} {:>6.2f} ({:.2f}..{:.2f})  {}\n", what, aim.quantity,
                   inUnits(aim, medianOf(owns, aim.member)), row.floorName, inUnits(aim, medianOf(floors, aim.member)),
                   ratio, bench::quantile(ratios, 0.25), bench::quantile(ratios, 0.75), verdict(aim, ratio));
        what = "";
    }
    std::fflush(stdout);
}

void countAllocations()
{
    const bench::Allocations counted = bench::apart(bench::allocationsPerCall);
    const auto print = [](const char* what, double count) {
        fmt::print("{:<37} {:<12} {:>12.2f} {:>48}\n", what, "allocations", count,
                   fmt::format("<= 4     {}", count <= 4 ? "met" : "MISSED"));
    };
    print("64 B, blocked in get, caller's side", counted.caller);
    print("64 B, blocked in get, provider's side", counted.provider);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    const double seconds = argc > 2 ? std::atof(argv[2]) : 0.5;
    const std::string only = argc > 3 ? argv[3] : "";
    const bench::RunDirectory directory(R"({"use_registry": false, "backends": ["comm"]})");
    fmt::print("{:<37} {:<12} {:>12} {:>18} {:>6} {:<14}  {}\n", "two processes", "", "Kesa", "floor", "ratio",
               "(quartiles)", "aim");
    for (const Row& row : rows()) {
        if (std::string(row.what).find(only) != std::string::npos) {
            measure(row, rounds, seconds);
        }
    }
    if (only.empty()) {
        countAllocations();
    }
    return 0;
}
