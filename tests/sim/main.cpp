// kesa_sim: runtimes, backends and a network in one thread under a seeded scheduler, many seeds in a row.
//
//   kesa_sim --seeds 5000 --seconds 60     at least 5,000 seeds, and as many more as a minute holds
//   kesa_sim --from 4711 --seeds 1         one run again; a failing seed is the whole report
//   kesa_sim --registry ...                with a registry in a process of its own, instead of configured services
//   kesa_sim --threads --seeds 200         the same model with real threads, for the sanitizers
//
// The first runs also collect marks: every rare branch in marks.h must be reached by one of them.

#include "Run.h"
#include "marks.h"
#include "orders.h"

#include <CLI/CLI.hpp>
#include <tracing/Sink.h>

#include <cstdio>
#include <mutex>

namespace {

using namespace kesa::sim;

/// Notes which marks the traces reach.
class MarkSink final : public tracing::ISink {
public:
    explicit MarkSink(std::vector<std::string_view> names) : m_names(std::move(names)), m_reached(m_names.size()) {}

    void write(const tracing::Line& line) override
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        for (std::size_t index = 0; index < m_names.size(); ++index) {
            if (!m_reached[index] && line.text.find(m_names[index]) != std::string_view::npos) {
                m_reached[index] = true;
            }
        }
    }
    std::vector<std::string_view> missing() const
    {
        std::vector<std::string_view> names;
        for (std::size_t index = 0; index < m_names.size(); ++index) {
            if (!m_reached[index]) {
                names.push_back(m_names[index]);
            }
        }
        return names;
    }

private:
    const std::vector<std::string_view> m_names;
    std::mutex m_mutex;
    std::vector<bool> m_reached;
};

class PrintSink final : public tracing::ISink {
public:
    void write(const tracing::Line& line) override
    {
        std::fprintf(stderr, "%d %.*s\n", line.severity, static_cast<int>(line.text.size()), line.text.data());
    }
};

class NullSink final : public tracing::ISink {
public:
    void write(const tracing::Line&) override {}
};

/// Prints the failures; their number.
std::uint64_t report(std::uint64_t seed, const std::vector<std::string>& failures)
{
    for (const std::string& failure : failures) {
        std::printf("seed %llu: %s\n", static_cast<unsigned long long>(seed), failure.c_str());
    }
    return failures.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    std::uint64_t from = 1;
    std::uint64_t seeds = 1000;
    std::uint64_t markSeeds = 300;
    double seconds = 0;
    std::uint64_t orders = 0;
    bool verbose = false;
    CLI::App app{"Simulates processes that register, track, resolve, call and die."};
    app.add_option("--from", from, "the first seed")->capture_default_str();
    app.add_option("--seeds", seeds, "how many, at least")->capture_default_str();
    app.add_option("--seconds", seconds, "go on until this much time has passed")->capture_default_str();
    app.add_option("--steps", options.steps, "actions in a run")->capture_default_str();
    app.add_option("--mark-seeds", markSeeds, "in how many runs marks are collected; 0: none are asked for")
        ->capture_default_str();
    app.add_flag("--registry", options.registry, "with a registry in a process of its own");
    app.add_option("--orders", orders, "with how many seeds to run all orders of start first")->capture_default_str();
    app.add_flag("--threads", options.threads, "real threads");
    app.add_flag("--verbose", verbose, "print every trace");
    CLI11_PARSE(app, argc, argv);

    const auto marks = std::make_shared<MarkSink>(options.registry ? registryMarks() : localMarks());
    const comm::TimeNs begin = comm::now();
    std::uint64_t done = 0;
    std::uint64_t failed = 0;
    tracing::setThreshold("*", 1); // always the same: what only a trace has use for is posted, too
    tracing::setSink(verbose ? std::shared_ptr<tracing::ISink>(std::make_shared<PrintSink>()) : marks);
    for (std::uint64_t seed = from; seed < from + orders; ++seed) {
        failed += report(seed, runOrders(seed));
        failed += report(seed, runManyProcesses(seed));
    }
    while (failed < 10 && (done < seeds || comm::now() - begin < static_cast<comm::TimeNs>(seconds * 1e9))) {
        if (done == markSeeds && !verbose) {
            tracing::setSink(std::make_shared<NullSink>());
        }
        options.seed = from + done;
        failed += report(options.seed, Run(options).run());
        ++done;
    }
    if (!verbose && markSeeds > 0 && done >= markSeeds) {
        for (const std::string_view name : marks->missing()) {
            std::printf("never reached: %.*s\n", static_cast<int>(name.size()), name.data());
            ++failed;
        }
    }
    std::printf("%llu seeds from %llu, %llu failures, %.1f s\n", static_cast<unsigned long long>(done),
                static_cast<unsigned long long>(from), static_cast<unsigned long long>(failed),
                static_cast<double>(comm::now() - begin) / 1e9);
    return failed == 0 ? 0 : 1;
}
