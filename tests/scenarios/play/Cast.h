#ifndef KESA_TESTS_SCENARIOS_CAST_H
#define KESA_TESTS_SCENARIOS_CAST_H

#include "Scenario.h"
#include "actor/Told.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kesa::scenarios {

/// Processes that play a scenario. A name belongs to the last one that was started under it.
class Cast {
public:
    virtual ~Cast() = default;

    /// Not waited for. `comm`: the "comm" of its document.
    virtual void start(const std::string& who, const std::string& comm) = 0;
    /// Starts it as one that says to all that it is the other.
    virtual void pose(const std::string& who, const std::string& other) = 0;
    virtual void kill(const std::string& who) = 0;
    /// In order; returns when it has ended.
    virtual void quit(const std::string& who) = 0;
    virtual void stop(const std::string& who) = 0;
    virtual void resume(const std::string& who) = 0;
    /// The connections between the two end, and nobody died.
    virtual void cut(const std::string& who, const std::string& other) = 0;
    /// That loop of it runs nothing for so long, while its program and everybody else go on.
    virtual void leaveBehind(const std::string& who, const std::string& loop, std::chrono::milliseconds time) = 0;
    /// Gives an actor a command.
    virtual void tell(const std::string& who, const std::string& line) = 0;
    /// The step that begins, for whoever is left waiting.
    virtual void begin(const std::string& /*step*/) {}
    /// Waits until it has told that, and takes it; what follows in that line, if it came.
    virtual std::optional<std::string> hears(const std::string& who, const std::string& beginning) = 0;
    /// What it has told so far.
    virtual const actor::Told& told(const std::string& who) = 0;
    /// What else there is to look at when it goes wrong.
    virtual std::string hint(const std::string& who) = 0;
    /// Some time passes between two steps, or none.
    virtual void pause() = 0;
    /// Whoever stands still goes on; then everything is given back. The rules that were broken, as lines.
    virtual std::string end() = 0;
};

/// Processes of one seed in simulated time.
std::unique_ptr<Cast> makeSimulatedCast(const Scenario& scenario, std::uint64_t seed);
/// Processes of this machine.
std::unique_ptr<Cast> makeRealCast(const Scenario& scenario);

/// What went wrong, beginning with "FILE:LINE: "; empty when nothing did.
std::string play(const Scenario& scenario, Cast& cast);

} // namespace kesa::scenarios

#endif
