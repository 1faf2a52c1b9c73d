// The registry between processes: `kesa-registryd` as it is, and processes that register, watch, die and come back.
//     kesa_bench_registry [rounds [divisor of all counts [part of a row's name]]]
#include "Comparison.h"
#include "RunDirectory.h"
#include "apart.h"
#include "floors.h"
#include "registry_crowds.h"
#include "registry_roads.h"

#include <fmt/format.h>
#include <tracing/Sink.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace bench;

struct Size {
    int rounds;
    int divisor; ///< of the counts
    double seconds() const { return 0.3 / divisor; }
    int count(int full) const { return full / divisor; }
};

using Road = Measured (*)(double seconds);

Side side(const char* name, Road road, const Size& size, double Measured::*member = &Measured::medianNs)
{
    return {name, [=] { return apart([&] { return road(size.seconds()); }).*member; }};
}

Side pingPong(const Size& size)
{
    return side("ping-pong", blockingPingPong, size);
}

void besidePingPong(const std::string& what, const Size& size, Road road, double aim = 0)
{
    compare(what, pingPong(size), side("Kesa", road, size), size.rounds, aim);
}

void relay(const std::string& what, const Size& size)
{
    compare(what, pingPong(size), side("relay", relayOverTwoHops, size), size.rounds);
}
void confirmedOneByOne(const std::string& what, const Size& size)
{
    besidePingPong(
        what, size, [](double seconds) { return confirmedRegistrations(seconds, 1); }, 2.5);
}
void confirmedInFlight(const std::string& what, const Size& size)
{
    // per registration: the time between two
    const auto interval = [](double seconds) {
        Measured measured = confirmedRegistrations(seconds, 64);
        measured.medianNs = 1e9 / measured.perSecond;
        return measured;
    };
    besidePingPong(what, size, interval);
}
void confirmedByBareClient(const std::string& what, const Size& size)
{
    besidePingPong(what, size, bareRegistrations);
}
void elsewhereByQuery(const std::string& what, const Size& size)
{
    besidePingPong(
        what, size, [](double seconds) { return registrationsElsewhere(seconds, Watch::eQUERY); }, 2.5);
}
void elsewhereByPath(const std::string& what, const Size& size)
{
    besidePingPong(
        what, size, [](double seconds) { return registrationsElsewhere(seconds, Watch::ePATH); }, 2.5);
}
void elsewhereAnswered(const std::string& what, const Size& size)
{
    besidePingPong(
        what, size, [](double seconds) { return registrationsElsewhere(seconds, Watch::eANSWERED); }, 4.5);
}
void elsewhereFirstContact(const std::string& what, const Size& size)
{
    const auto own = [](int samples) { return apart([samples] { return firstContact(samples); }); };
    compare(what, pingPong(size), {"Kesa", [=] { return own(20); }}, size.rounds);
}
void death(const std::string& what, const Size& size)
{
    constexpr int SAMPLES = 20;
    compare(what, {"raw", [] { return apart([] { return rawDeath(SAMPLES); }); }},
            {"Kesa", [] { return apart([] { return deathElsewhere(SAMPLES); }); }}, size.rounds, 1.2);
}

void firstListOf(const std::string& what, const Size& size, const Listing& listing, double aimMs)
{
    measureAlone(what, {"Kesa", [&] { return apart([&] { return firstList(listing, 3); }); }}, size.rounds, aimMs);
}
void firstListOfMany(const std::string& what, const Size& size)
{
    firstListOf(what, size, {size.count(10'000), 0}, 60);
}
void firstListOfLarge(const std::string& what, const Size& size)
{
    firstListOf(what, size, {size.count(1'000), 30U << 10U}, 0);
}

void firstListToMany(const std::string& what, const Size& size, const Listing& listing)
{
    constexpr double MIB = 1 << 20;
    const ListedToMany result = apart([&] { return firstListForMany(listing, size.count(200)); });
    fmt::print("{:<44} {:.2f} s until the last has all, {:.1f} ms CPU of the registry each, registry {:.1f} MiB, at "
               "most {:.1f} MiB\n",
               what, result.wallNs / 1e9, result.registryCpuNs / 1e6, result.before / MIB, result.peak / MIB);
    std::fflush(stdout);
}
void firstListOfManyToMany(const std::string& what, const Size& size)
{
    firstListToMany(what, size, {size.count(10'000), 0});
}
void firstListOfLargeToMany(const std::string& what, const Size& size)
{
    firstListToMany(what, size, {size.count(1'000), 30U << 10U});
}

struct Sized {
    const char* name;
    World::Population population;
};

/// A registration beside few and beside many.
void flat(const std::string& what, const Size& size, const Sized& few, const Sized& many)
{
    World small(few.population);
    World large(many.population);
    const auto judge = [&](const std::string& row, double World::Cost::*member) {
        compare(row, {few.name, [&] { return small.registrations().*member; }},
                {many.name, [&] { return large.registrations().*member; }}, size.rounds, 1.1);
    };
    judge(what, &World::Cost::wallNs);
    judge("  CPU of the registry, with the withdrawal", &World::Cost::registryNs);
}
void flatWith1000(const std::string& what, const Size& size)
{
    flat(what, size, {"10", {0, 10, 0}}, {"1,000", {0, size.count(1'000), 0}});
}
void flatWith10000(const std::string& what, const Size& size)
{
    flat(what, size, {"10", {0, 10, 0}}, {"10,000", {0, size.count(10'000), 0}});
}
void flatWithNames(const std::string& what, const Size& size)
{
    flat(what, size, {"10", {10, 0, 0}}, {"5,000", {size.count(5'000), 0, 0}});
}
void toManyWatchers(const std::string& what, const Size& size)
{
    World one({0, 0, 1});
    World many({0, 0, size.count(1'000)});
    compare(what, {"1 watcher", [&] { return one.registrations().fanOutNs; }},
            {"1,000", [&] { return many.registrations().fanOutNs; }}, size.rounds);
}

void printBytes(const char* what, double bytes, const char* aim)
{
    fmt::print("{:<44} {:.0f} bytes{}\n", what, bytes, aim);
    std::fflush(stdout);
}
void memory(const std::string&, const Size& size)
{
    const Footprint result = apart([&] { return footprint(size.count(10'000)); });
    printBytes("registry's memory per record", result.record,
               result.record < 2048 ? "  < 2048 met" : "  < 2048 MISSED");
    printBytes("registry's memory per watcher of a path", result.watcher, "");
}

void restarted(const std::string& what, const Size& size)
{
    std::vector<Restart> all;
    const auto next = [&] {
        all.push_back(apart([&] { return restart(size.count(200), 50); }));
        return all.back().fromReadyNs;
    };
    measureAlone(what, {"since ready", next}, 3, 1000);
    std::size_t index = 0;
    measureAlone("", {"since start", [&] { return all[index++].fromStartNs; }}, 3);
}

void beginning(const std::string& what, const Size& size)
{
    const int processes = size.count(200);
    const Beginning result = apart([&] { return startAtOnce(processes); });
    fmt::print("{:<44} {:.2f} ms CPU each, {:.2f} ms CPU of the registry for each, {:.0f} ms until the last one\n",
               what, result.cpuNs / 1e6, result.registryCpuNs / 1e6, result.wallNs / 1e6);
    std::fflush(stdout);
}

struct Row {
    const char* what;
    void (*measure)(const std::string& what, const Size& size);
};
constexpr Row ROWS[] = {
    {"raw relay over two hops", relay},
    {"registration confirmed", confirmedOneByOne},
    {"registration confirmed, 64 in flight", confirmedInFlight},
    {"registration by the bare client", confirmedByBareClient},
    {"registration to another's query **", elsewhereByQuery},
    {"registration to another's tracking", elsewhereByPath},
    {"registration to a first answer elsewhere", elsewhereAnswered},
    {"  the same, first contact of the two", elsewhereFirstContact},
    {"SIGKILL to eREMOVED elsewhere", death},
    {"registration, watchers of other paths (1,000)", flatWith1000},
    {"registration, watchers of other paths (10,000)", flatWith10000},
    {"registration, names in the registry", flatWithNames},
    {"registration until all watchers are told", toManyWatchers},
    {"first list of 10,000", firstListOfMany},
    {"first list of 1,000 of 30 KiB", firstListOfLarge},
    {"200 first lists of 10,000 at once", firstListOfManyToMany},
    {"200 first lists of 1,000 of 30 KiB at once", firstListOfLargeToMany},
    {"memory", memory},
    {"registry killed: 200 x 50 services back", restarted},
    {"200 processes start at once", beginning},
};

} // namespace

int main(int argc, char** argv)
{
    const Size size{argc > 1 ? std::atoi(argv[1]) : 7, argc > 2 ? std::atoi(argv[2]) : 1};
    const std::string only = argc > 3 ? argv[3] : "";
    tracing::setThreshold("*", 5); // a runtime that ends names each service that it still has
    const RunDirectory directory(WITH_REGISTRY);
    for (const Row& row : ROWS) {
        if (std::string(row.what).find(only) != std::string::npos) {
            directory.enter(); // worlds have folders of their own
            row.measure(row.what, size);
        }
    }
    return 0;
}
