#ifndef KESA_TESTS_SCENARIOS_SCENARIO_H
#define KESA_TESTS_SCENARIOS_SCENARIO_H

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kesa::scenarios {

inline const std::string REGISTRY = "registry";

/// Who does what, or what must be true of him then.
struct Step {
    unsigned line = 0;
    std::string who;
    std::string command;
    std::string arguments;
};

/// A file of tests/scenarios; docs/simulation.md describes the language.
struct Scenario {
    std::string file;
    std::optional<std::vector<std::string>> services; ///< configured ones, instead of a registry
    std::string onlyCast;                             ///< the one that can play it; empty: both
    std::vector<Step> steps;

    std::string at(unsigned line) const { return file + ':' + std::to_string(line) + ": "; }
};

/// "FILE:LINE: what".
class Mistake : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

Scenario readScenario(const std::string& file);

} // namespace kesa::scenarios

#endif
