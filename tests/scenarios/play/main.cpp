// kesa_scenarios [FILE...]: plays scenarios; without files, all of tests/scenarios.
//
//   kesa_scenarios --seeds 200                         simulated, each with so many seeds
//   kesa_scenarios --seed 17 --verbose x.scenario      one of them again, with every trace
//   kesa_scenarios --real x.scenario                   with processes of this machine

#include "Cast.h"

#include <CLI/CLI.hpp>
#include <tracing/CapturingSink.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

namespace kesa::scenarios {
namespace {

struct Arguments {
    std::vector<std::string> files;
    bool isReal = false;
    std::uint64_t first = 1;
    std::uint64_t seeds = 100;
    bool isVerbose = false;
};

std::vector<std::string> allFiles()
{
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(KESA_SCENARIOS)) {
        if (entry.path().extension() == ".scenario") {
            files.push_back(entry.path().string());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string played; ///< what is on stage

/// Ours is the process that a bug ends: it says in which scenario.
[[noreturn]] void tellAndAbort()
{
    std::printf("the process ends in the midst of %s\n", played.c_str());
    std::fflush(stdout);
    std::abort();
}

std::string playSeeds(const Scenario& scenario, const Arguments& arguments)
{
    for (std::uint64_t seed = arguments.first; seed < arguments.first + arguments.seeds; ++seed) {
        played = scenario.file + ", seed " + std::to_string(seed);
        const std::string failure = play(scenario, *makeSimulatedCast(scenario, seed));
        if (!failure.empty()) {
            return failure + "  seed " + std::to_string(seed) + '\n';
        }
    }
    return {};
}

/// 1 when it fails.
int playFile(const std::string& file, const Arguments& arguments)
{
    std::string failure;
    try {
        const Scenario scenario = readScenario(file);
        if (!scenario.onlyCast.empty() && (scenario.onlyCast == "real") != arguments.isReal) {
            return 0;
        }
        failure = arguments.isReal ? play(scenario, *makeRealCast(scenario)) : playSeeds(scenario, arguments);
    } catch (const Mistake& mistake) {
        failure = std::string(mistake.what()) + '\n';
    }
    std::fputs(failure.c_str(), stdout);
    std::fflush(stdout);
    return failure.empty() ? 0 : 1;
}

void setTraces(bool isVerbose)
{
    tracing::setThreshold("*", 1); // always: what only a trace has use for is posted, too, and so a seed runs the same
    tracing::setSink(std::make_shared<tracing::CapturingSink>([isVerbose](const tracing::Line& line) {
        if (isVerbose) {
            std::fprintf(stderr, "%d %.*s\n", line.severity, static_cast<int>(line.text.size()), line.text.data());
        }
        return std::string();
    }));
}

} // namespace
} // namespace kesa::scenarios

int main(int argc, char** argv)
{
    kesa::scenarios::Arguments arguments;
    CLI::App app{"Plays scenarios, simulated or with real processes."};
    app.add_option("FILE", arguments.files, "what to play; all of them without");
    app.add_flag("--real", arguments.isReal, "with processes of this machine, once each");
    app.add_option("--seeds", arguments.seeds, "with how many seeds each is simulated")->capture_default_str();
    CLI::Option* const seed = app.add_option("--seed", arguments.first, "with this one alone");
    app.add_flag("--verbose", arguments.isVerbose, "print every trace of simulated processes");
    CLI11_PARSE(app, argc, argv);

    if (seed->count() != 0) {
        arguments.seeds = 1;
    }
    if (arguments.files.empty()) {
        arguments.files = kesa::scenarios::allFiles();
    }
    std::set_terminate(kesa::scenarios::tellAndAbort);
    kesa::scenarios::setTraces(arguments.isVerbose);
    int failed = 0;
    for (const std::string& file : arguments.files) {
        failed += kesa::scenarios::playFile(file, arguments);
    }
    tracing::setSink(nullptr);
    std::printf("%zu scenario%s, %d failure%s\n", arguments.files.size(), arguments.files.size() == 1 ? "" : "s",
                failed, failed == 1 ? "" : "s");
    return failed == 0 ? 0 : 1;
}
