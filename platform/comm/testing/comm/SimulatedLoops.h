#ifndef COMM_SIMULATEDLOOPS_H
#define COMM_SIMULATEDLOOPS_H

#include "src/CurrentLoop.h"
#include "src/LiveLoop.h"
#include "src/TimerQueue.h"

#include <comm/Clock.h>
#include <comm/Reactor.h>
#include <obr/ErrorStorage.h>
#include <util/UniqueFunction.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace comm {

/// What a simulated loop is, run loop or reactor: the one has events, the other tasks and timers.
struct SimulatedLoop : std::enable_shared_from_this<SimulatedLoop> {
    SimulatedLoop(const std::string& loopName, std::uint64_t loopGroup, Reactor* reactor)
        : name(loopName), info{name, reactor}, group(loopGroup)
    {}

    bool hasWork() const noexcept { return !queue.empty() || !turnEnd.empty(); }
    bool hasDueTimer(TimeNs time) const noexcept { return !timers.isEmpty() && timers.next() <= time; }
    bool isBehind(TimeNs time) const noexcept { return behindUntil > time; }
    /// When it has something to run; the past when it has already.
    TimeNs nextDue() const noexcept { return std::max(hasWork() ? 0 : timers.next(), behindUntil); }

    const std::string name;
    const LoopInfo info;
    const std::uint64_t group;
    std::deque<util::UniqueFunction<void()>> queue;
    TimerQueue timers;
    std::vector<Reactor::Task> turnEnd;
    Reactor::Id lastId = 0;
    TimeNs lapStart = 0;
    util::UniqueFunction<void(TimeNs)> tell; ///< of a long event, on a watched run loop
    TimeNs behindUntil = 0;
    obr::ErrorStorage::Slot error;
    bool isRunning = false;  ///< in the middle of an event
    bool isStopping = false; ///< takes nothing new
    bool isDead = false;     ///< stopped or killed: runs nothing
    std::optional<LiveLoop> live{std::in_place};
};

/// The loops of one simulation, its clock and its draws. Used in one thread. See the head of SimulatedLoops.cpp.
class SimulatedLoops {
public:
    explicit SimulatedLoops(std::uint64_t seed) noexcept : m_state(seed) {}

    TimeNs now() const noexcept { return m_now; }
    void advanceTo(TimeNs time) noexcept { m_now = std::max(m_now, time); }

    /// Splitmix64.
    std::uint64_t draw(std::uint64_t bound) noexcept
    {
        std::uint64_t z = (m_state += 0x9e3779b97f4a7c15U);
        z = (z ^ (z >> 30U)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27U)) * 0x94d049bb133111ebU;
        z ^= z >> 31U;
        return bound == 0 ? 0 : z % bound;
    }

    std::shared_ptr<SimulatedLoop> add(const std::string& name, Reactor* reactor)
    {
        return m_loops.emplace_back(std::make_shared<SimulatedLoop>(name, m_group, reactor));
    }
    void push(SimulatedLoop& loop, util::UniqueFunction<void()> work);
    void stop(SimulatedLoop& loop);
    void remove(const std::shared_ptr<SimulatedLoop>& loop);
    bool isInnermost(const SimulatedLoop& loop) const noexcept
    {
        return !m_running.empty() && m_running.back() == &loop;
    }

    /// What a callback waits for is its own, however much the other loops have to do meanwhile.
    TimeNs lap(SimulatedLoop& loop) const noexcept
    {
        const TimeNs lasted = m_now - std::exchange(loop.lapStart, m_now);
        return lasted > Reactor::LONG_CALLBACK ? lasted : 0;
    }
    TimeNs heldFor(const SimulatedLoop& loop) const noexcept { return loop.isRunning ? m_now - loop.lapStart : 0; }

    bool step();
    TimeNs nextDue() const noexcept;
    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline);

    void setGroup(std::uint64_t group) noexcept { m_group = group; }
    void pause(std::uint64_t group) { m_paused.insert(group); }
    void resume(std::uint64_t group) { m_paused.erase(group); }
    void kill(std::uint64_t group);
    void leaveBehind(std::uint64_t group, const std::string& name, TimeNs until) noexcept;

private:
    bool canRun(const SimulatedLoop& loop) const noexcept
    {
        return !loop.isRunning && !loop.isDead && (m_paused.empty() || !m_paused.contains(loop.group));
    }
    void runOne(SimulatedLoop& loop);
    void runTurnEnd(SimulatedLoop& loop);
    static void end(SimulatedLoop& loop);
    void reportDeadlock() const;

    std::uint64_t m_state;
    TimeNs m_now = SECOND;
    std::vector<std::shared_ptr<SimulatedLoop>> m_loops; ///< in the order they were made
    std::vector<SimulatedLoop*> m_running;               ///< the last one is the innermost
    std::vector<SimulatedLoop*> m_candidates;            ///< of the step under way
    std::uint64_t m_group = 0;
    std::set<std::uint64_t> m_paused;
};

} // namespace comm

#endif
