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
#include <filesystem>

namespace kesa::scenarios {
namespace {

struct Choice {
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

std::string playSeeds(const Scenario& scenario, const Choice& options)
{
    for (std::uint64_t seed = options.first; seed < options.first + options.seeds; ++seed) {
        const std::string failure = play(scenario, *makeSimulatedCast(scenario, seed));
        if (!failure.empty()) {
            return failure + "  seed " + std::to_string(seed) + '\n';
        }
    }
    return {};
}

/// 1 when it fails.
int playFile(const std::string& file, const Choice& options)
{
    std::string failure;
    try {
        const Scenario scenario = readScenario(file);
        if (!scenario.onlyCast.empty() && (scenario.onlyCast == "real") != options.isReal) {
            return 0;
        }
        failure = options.isReal ? play(scenario, *makeRealCast(scenario)) : playSeeds(scenario, options);
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
    kesa::scenarios::Choice options;
    CLI::App app{"Plays scenarios, simulated or with real processes."};
    app.add_option("FILE", options.files, "what to play; all of them without");
    app.add_flag("--real", options.isReal, "with processes of this machine, once each");
    app.add_option("--seeds", options.seeds, "with how many seeds each is simulated")->capture_default_str();
    CLI::Option* const seed = app.add_option("--seed", options.first, "with this one alone");
    app.add_flag("--verbose", options.isVerbose, "print every trace of simulated processes");
    CLI11_PARSE(app, argc, argv);

    if (seed->count() != 0) {
        options.seeds = 1;
    }
    if (options.files.empty()) {
        options.files = kesa::scenarios::allFiles();
    }
    kesa::scenarios::setTraces(options.isVerbose);
    int failed = 0;
    for (const std::string& file : options.files) {
        failed += kesa::scenarios::playFile(file, options);
    }
    tracing::setSink(nullptr);
    std::printf("%zu scenarios, %d failures\n", options.files.size(), failed);
    return failed == 0 ? 0 : 1;
}
