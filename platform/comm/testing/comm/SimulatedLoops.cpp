// All loops of a simulation lie in one list; a step counts those that could run something now and draws one. A loop in
// the middle of an event is never entered again: while that event waits, the other loops run on top of it, on the same
// stack. Hence a limit: of two waits nested in each other only the inner one can end. Loops that wait for each other's
// results have to wait in one direction, as Kesa's do.
#include <comm/SimulatedLoops.h>

#include <obr/GlobalErrorHandler.h>

namespace comm {

void SimulatedLoops::push(SimulatedLoop& loop, util::UniqueFunction<void()> work)
{
    if (!loop.isStopping) {
        loop.queue.push_back(std::move(work));
    }
}

bool SimulatedLoops::step()
{
    m_candidates.clear();
    for (const auto& loop : m_loops) {
        if (canRun(*loop) && !loop->isBehind(m_now) && (loop->hasWork() || loop->hasDueTimer(m_now))) {
            m_candidates.push_back(loop.get());
        }
    }
    if (m_candidates.empty()) {
        return false;
    }
    runOne(*m_candidates[draw(m_candidates.size())]);
    return true;
}

/// One piece of work; then the end of the turn, unless the draw lets the turn take more first.
void SimulatedLoops::runOne(SimulatedLoop& loop)
{
    const auto keep = loop.shared_from_this(); // its work may destroy its handle
    loop.isRunning = true;
    m_running.push_back(&loop);
    const CurrentLoop current(&loop.info);
    obr::ErrorStorage::exchange(loop.error);
    const bool isTimerDue = loop.hasDueTimer(m_now);
    if (isTimerDue || !loop.queue.empty()) {
        util::UniqueFunction<void()> work;
        if (isTimerDue && (loop.queue.empty() || draw(2) == 0)) {
            work = loop.timers.takeDue(m_now);
        } else {
            work = std::move(loop.queue.front());
            loop.queue.pop_front();
        }
        loop.lapStart = m_now;
        work();
        work = nullptr;
        if (const TimeNs held = lap(loop); held != 0 && loop.tell) {
            loop.tell(held);
        }
    }
    const bool hasMore = !loop.queue.empty() || loop.hasDueTimer(m_now);
    if (!loop.turnEnd.empty() && (!hasMore || draw(2) == 0)) {
        runTurnEnd(loop);
    }
    obr::ErrorStorage::exchange(loop.error);
    m_running.pop_back();
    loop.isRunning = false;
}

void SimulatedLoops::runTurnEnd(SimulatedLoop& loop)
{
    for (Reactor::Task& task : std::exchange(loop.turnEnd, {})) {
        if (!loop.isDead) {
            task();
        }
        task = nullptr;
    }
}

TimeNs SimulatedLoops::nextDue() const noexcept
{
    TimeNs next = NEVER;
    for (const auto& loop : m_loops) {
        if (canRun(*loop)) {
            next = std::min(next, loop->nextDue());
        }
    }
    return next;
}

bool SimulatedLoops::wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline)
{
    while (!predicate()) {
        if (m_now >= deadline) {
            return false;
        }
        lock.unlock();
        bool isStuck = false;
        if (!step()) {
            const TimeNs next = std::min(nextDue(), deadline);
            isStuck = next == NEVER;
            if (isStuck) {
                reportDeadlock();
            } else {
                advanceTo(next);
            }
        }
        lock.lock();
        if (isStuck) {
            return predicate();
        }
    }
    return true;
}

void SimulatedLoops::reportDeadlock() const
{
    std::string message =
        "deadlock: nothing is left to run, and these wait (innermost last): the caller of the scheduler";
    for (const SimulatedLoop* loop : m_running) {
        message += ", '" + loop->name + "' (group " + std::to_string(loop->group) + ")";
    }
    if (!m_paused.empty()) {
        message += "; some groups are paused";
    }
    obr::GlobalErrorHandler::doAssert(false, "step()", __FILE__, __LINE__, __func__, message.c_str());
}

void SimulatedLoops::stop(SimulatedLoop& loop)
{
    if (loop.isDead) {
        return;
    }
    if (loop.isRunning) {
        const std::string message = "the loop '" + loop.name + "' cannot be stopped while one of its own events is " +
                                    "under way below: that would wait for its own end";
        obr::GlobalErrorHandler::doAssert(false, "!isRunning", __FILE__, __LINE__, __func__, message.c_str());
        return;
    }
    // What was queued before runs, and others may run meanwhile; a paused loop is drained all the same.
    loop.isStopping = true;
    while (loop.hasWork() && !loop.isDead) {
        if (draw(2) == 0 || !step()) {
            runOne(loop);
        }
    }
    end(loop);
}

/// Drops what is left; destructors may call anything.
void SimulatedLoops::end(SimulatedLoop& loop)
{
    loop.isStopping = true;
    loop.isDead = true;
    loop.live.reset();
    while (!loop.queue.empty() || !loop.timers.isEmpty() || !loop.turnEnd.empty()) {
        std::exchange(loop.queue, {}).clear();
        loop.timers.clear();
        std::exchange(loop.turnEnd, {}).clear();
    }
}

void SimulatedLoops::remove(const std::shared_ptr<SimulatedLoop>& loop)
{
    stop(*loop);
    end(*loop);
    std::erase(m_loops, loop);
}

void SimulatedLoops::kill(std::uint64_t group)
{
    m_paused.erase(group);
    const auto loops = m_loops;
    for (const auto& loop : loops) {
        if (loop->group == group) {
            loop->isDead = true; // all of them, before the first destructor runs
            loop->isStopping = true;
        }
    }
    for (const auto& loop : loops) {
        if (loop->group == group) {
            end(*loop);
        }
    }
}

void SimulatedLoops::leaveBehind(std::uint64_t group, const std::string& name, TimeNs until) noexcept
{
    for (const auto& loop : m_loops) {
        if (loop->group == group && loop->name == name) {
            loop->behindUntil = until;
        }
    }
}

} // namespace comm
