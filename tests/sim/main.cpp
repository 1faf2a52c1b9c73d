// kesa_sim: runtimes, backends and a network in one thread under a seeded scheduler, many seeds in a row.
//
//   kesa_sim --seeds 5000 --seconds 60     at least 5,000 seeds, and as many more as a minute holds
//   kesa_sim --from 4711 --seeds 1         one run again; a failing seed is the whole report
//   kesa_sim --registry ...                with a registry in a process of its own, instead of configured services
//   kesa_sim --crowds 1 ...                many ask at once, in every run
//   kesa_sim --feeds 1 ...                 services give values faster than their askers handle them, in every run
//   kesa_sim --liars 1 ...                 one process keeps no rule, in every run
//   kesa_sim --threads --seeds 200         the same model with real threads, for the sanitizers
//
// The first runs also collect marks: every rare branch in marks.h must be reached by one of them.

#include "Run.h"
#include "marks.h"

#include <CLI/CLI.hpp>
#include <tracing/CapturingSink.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <mutex>
#include <utility>

namespace {

using namespace kesa::sim;

/// The marks that no trace has reached yet. Any thread.
class Marks {
public:
    explicit Marks(std::vector<std::string_view> names) : m_missing(std::move(names)) {}

    void add(const std::vector<std::string_view>& names)
    {
        m_missing.insert(m_missing.end(), names.begin(), names.end());
    }
    void look(std::string_view text)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::erase_if(m_missing, [text](std::string_view mark) { return text.find(mark) != std::string_view::npos; });
    }
    const std::vector<std::string_view>& missing() const { return m_missing; }

private:
    std::mutex m_mutex;
    std::vector<std::string_view> m_missing;
};

/// Connections that were ended for what a peer of this kind does not do. Any thread.
class CutOffs {
public:
    void look(const tracing::Line& line)
    {
        static constexpr std::string_view BEGIN = " is cut off: ";
        static constexpr std::string_view OF_STANDING[] = {"it does not take what is sent to it", "silent for ",
                                                           "no hello within ", "it takes its news more slowly"};
        const std::size_t at =
            line.channel == "KESA_COMM" && line.severity == 3 ? line.text.find(BEGIN) : line.text.npos;
        if (at == line.text.npos) {
            return;
        }
        const std::string_view reason = line.text.substr(at + BEGIN.size());
        if (std::none_of(std::begin(OF_STANDING), std::end(OF_STANDING),
                         [reason](std::string_view begin) { return reason.substr(0, begin.size()) == begin; })) {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_found.push_back("nobody breaks the protocol: " + std::string(line.text));
        }
    }
    /// But those of liars.
    std::vector<std::string> take(const Run& run)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::erase_if(m_found, [&run](const std::string& found) { return run.isLiar(processOf(found)); });
        return std::exchange(m_found, {});
    }

private:
    /// By its number, whatever it calls itself: "'p0 (process 7)' is cut off", "'process 7' is cut off".
    static std::uint64_t processOf(const std::string& found)
    {
        static constexpr std::string_view NUMBER = "process ";
        const std::size_t at = found.rfind(NUMBER, found.find("' is cut off: "));
        return at == std::string::npos ? 0 : std::strtoull(found.c_str() + at + NUMBER.size(), nullptr, 10);
    }

    std::mutex m_mutex;
    std::vector<std::string> m_found;
};

void print(const tracing::Line& line)
{
    std::fprintf(stderr, "%d %.*s\n", line.severity, static_cast<int>(line.text.size()), line.text.data());
}

/// Where traces go: nothing is kept of them.
void look(std::function<void(const tracing::Line&)> work)
{
    tracing::setSink(std::make_shared<tracing::CapturingSink>([work = std::move(work)](const tracing::Line& line) {
        work(line);
        return std::string();
    }));
}

/// Prints the failures; 1 if there are any.
std::uint64_t report(const Options& options, CutOffs& cutOffs)
{
    Run run(options);
    std::vector<std::string> failures = run.run();
    for (std::string& cut : cutOffs.take(run)) {
        failures.push_back(std::move(cut));
    }
    for (const std::string& failure : failures) {
        std::printf("seed %llu: %s\n", static_cast<unsigned long long>(options.seed), failure.c_str());
    }
    return failures.empty() ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    std::uint64_t from = 1;
    std::uint64_t seeds = 1000;
    std::uint64_t markSeeds = 500;
    double seconds = 0;
    bool verbose = false;
    CLI::App app{"Simulates processes that register, track, resolve, call and die."};
    app.add_option("--from", from, "the first seed")->capture_default_str();
    app.add_option("--seeds", seeds, "how many, at least")->capture_default_str();
    app.add_option("--seconds", seconds, "go on until this much time has passed")->capture_default_str();
    app.add_option("--steps", options.steps, "actions in a run")->capture_default_str();
    app.add_option("--mark-seeds", markSeeds, "in how many runs marks are collected; 0: none are asked for")
        ->capture_default_str();
    app.add_flag("--registry", options.registry, "with a registry in a process of its own");
    app.add_option("--crowds", options.crowds, "one of so many runs is crowded")->capture_default_str();
    app.add_option("--feeds", options.feeds, "in one of so many runs services give more than askers handle; 0: in none")
        ->capture_default_str();
    app.add_option("--liars", options.liars, "one of so many runs has a liar; 0: none")->capture_default_str();
    app.add_flag("--threads", options.threads, "real threads");
    app.add_flag("--verbose", verbose, "print every trace");
    CLI11_PARSE(app, argc, argv);

    Marks marks(callMarks());
    marks.add(options.registry ? registryMarks() : localMarks());
    const comm::TimeNs begin = comm::now();
    std::uint64_t done = 0;
    std::uint64_t failed = 0;
    tracing::setThreshold("*", 1); // always the same: what only a trace has use for is posted, too
    CutOffs cutOffs;
    look([&](const tracing::Line& line) {
        cutOffs.look(line);
        verbose ? print(line) : marks.look(line.text);
    });
    while (failed < 10 && (done < seeds || comm::now() - begin < static_cast<comm::TimeNs>(seconds * 1e9))) {
        if (done == markSeeds && !verbose) {
            look([&cutOffs](const tracing::Line& line) { cutOffs.look(line); });
        }
        options.seed = from + done;
        failed += report(options, cutOffs);
        ++done;
    }
    tracing::setSink(nullptr);
    if (!verbose && markSeeds > 0 && done >= markSeeds) {
        for (const std::string_view name : marks.missing()) {
            std::printf("never reached: %.*s\n", static_cast<int>(name.size()), name.data());
            ++failed;
        }
    }
    std::printf("%llu seeds from %llu, %llu failures, %.1f s\n", static_cast<unsigned long long>(done),
                static_cast<unsigned long long>(from), static_cast<unsigned long long>(failed),
                static_cast<double>(comm::now() - begin) / 1e9);
    return failed == 0 ? 0 : 1;
}
