#ifndef COMM_SIMULATEDSCHEDULER_H
#define COMM_SIMULATEDSCHEDULER_H

#include <comm/Scheduler.h>

#include <cstdint>
#include <memory>

namespace comm {

class SimulatedLoops;

/// All loops in the caller's thread, in an order drawn from a seed: the same seed gives the same run. Each step
/// lets one loop run one event, task or due timer. While a loop waits (`comm::waitFor`), the others go on inside
/// that wait. For tests and for `tests/sim`.
class SimulatedScheduler : public Scheduler {
public:
    explicit SimulatedScheduler(std::uint64_t seed);
    ~SimulatedScheduler() override;

    std::unique_ptr<IRunLoop> makeRunLoop(const std::string& name) override;
    std::shared_ptr<Reactor> makeReactor(const std::string& name) override;
    std::unique_ptr<IConditionImpl> makeCondition() override;
    TimeNs now() const noexcept override;

    /// Runs one piece of work of a loop chosen by the seed; false when no loop has any that is due.
    bool step();
    /// Steps until nothing is due; the clock stands still. Returns the number of steps.
    std::size_t runReady();
    /// Steps, and lets the clock jump to the next timer when nothing is due, until `until`; then the clock reads
    /// `until`.
    void runUntil(TimeNs until);
    void runFor(TimeNs duration) { runUntil(now() + duration); }
    /// Steps and jumps until nothing is left at all, neither work nor timers, or `limit` steps are done; false then.
    bool runAll(std::size_t limit = 1'000'000);

    /// A stopped loop (a process under SIGSTOP) does not run until it is continued; its work is kept. `group` is
    /// what `setGroup` named when the loop was made.
    void setGroup(std::uint64_t group) noexcept;
    void pauseGroup(std::uint64_t group);
    void continueGroup(std::uint64_t group);
    /// The loops of the group never run again; their work is dropped without being run (a process under SIGKILL).
    void killGroup(std::uint64_t group);
    /// The group's loop of that name runs nothing before `until`, while time passes and everybody else goes on: a
    /// thread that is busy, or gets no processor.
    void leaveBehind(std::uint64_t group, const std::string& loop, TimeNs until);

    /// A draw from the run's own seed, for the test's choices.
    std::uint64_t draw(std::uint64_t bound) noexcept;

private:
    class Condition;
    class RunLoop;
    class LoopReactor;
    const std::shared_ptr<SimulatedLoops> m_all;
};

} // namespace comm

#endif
