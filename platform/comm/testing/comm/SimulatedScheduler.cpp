// All loops of a simulation lie in one list; a step counts those that could run something now and draws one. A loop in
// the middle of an event is never entered again: while that event waits, the other loops run on top of it, on the same
// stack. Hence a limit: of two waits nested in each other only the inner one can end. Loops that wait for each other's
// results have to wait in one direction, as Kesa's do.
#include <comm/SimulatedScheduler.h>

#include "src/CurrentLoop.h"
#include "src/LiveLoop.h"
#include "src/TimerQueue.h"

#include <obr/ErrorStorage.h>
#include <obr/GlobalErrorHandler.h>

#include <algorithm>
#include <deque>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace comm {

namespace {

/// What a simulated loop is, run loop or reactor: the one has events, the other tasks and timers.
struct Loop : std::enable_shared_from_this<Loop> {
    Loop(const std::string& loopName, std::uint64_t loopGroup, Reactor* reactor)
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

} // namespace

class SimulatedScheduler::Impl {
public:
    explicit Impl(std::uint64_t seed) noexcept : m_state(seed) {}

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

    std::shared_ptr<Loop> add(const std::string& name, Reactor* reactor)
    {
        return m_loops.emplace_back(std::make_shared<Loop>(name, m_group, reactor));
    }
    void push(Loop& loop, util::UniqueFunction<void()> work);
    void stop(Loop& loop);
    void remove(const std::shared_ptr<Loop>& loop);
    bool isInnermost(const Loop& loop) const noexcept { return !m_running.empty() && m_running.back() == &loop; }

    /// What a callback waits for is its own, however much the other loops have to do meanwhile.
    TimeNs lap(Loop& loop) const noexcept
    {
        const TimeNs lasted = m_now - std::exchange(loop.lapStart, m_now);
        return lasted > Reactor::LONG_CALLBACK ? lasted : 0;
    }
    TimeNs heldFor(const Loop& loop) const noexcept { return loop.isRunning ? m_now - loop.lapStart : 0; }

    bool step();
    TimeNs nextDue() const noexcept;
    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline);

    void setGroup(std::uint64_t group) noexcept { m_group = group; }
    void pause(std::uint64_t group) { m_paused.insert(group); }
    void resume(std::uint64_t group) { m_paused.erase(group); }
    void kill(std::uint64_t group);
    void leaveBehind(std::uint64_t group, const std::string& name, TimeNs until) noexcept;

private:
    bool canRun(const Loop& loop) const noexcept
    {
        return !loop.isRunning && !loop.isDead && (m_paused.empty() || !m_paused.contains(loop.group));
    }
    void runOne(Loop& loop);
    void runTurnEnd(Loop& loop);
    static void end(Loop& loop);
    void reportDeadlock() const;

    std::uint64_t m_state;
    TimeNs m_now = SECOND;
    std::vector<std::shared_ptr<Loop>> m_loops; ///< in the order they were made
    std::vector<Loop*> m_running;               ///< the last one is the innermost
    std::vector<Loop*> m_candidates;            ///< of the step under way
    std::uint64_t m_group = 0;
    std::set<std::uint64_t> m_paused;
};

void SimulatedScheduler::Impl::push(Loop& loop, util::UniqueFunction<void()> work)
{
    if (!loop.isStopping) {
        loop.queue.push_back(std::move(work));
    }
}

bool SimulatedScheduler::Impl::step()
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
void SimulatedScheduler::Impl::runOne(Loop& loop)
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

void SimulatedScheduler::Impl::runTurnEnd(Loop& loop)
{
    for (Reactor::Task& task : std::exchange(loop.turnEnd, {})) {
        if (!loop.isDead) {
            task();
        }
        task = nullptr;
    }
}

TimeNs SimulatedScheduler::Impl::nextDue() const noexcept
{
    TimeNs next = NEVER;
    for (const auto& loop : m_loops) {
        if (canRun(*loop)) {
            next = std::min(next, loop->nextDue());
        }
    }
    return next;
}

bool SimulatedScheduler::Impl::wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate,
                                    TimeNs deadline)
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

void SimulatedScheduler::Impl::reportDeadlock() const
{
    std::string message =
        "deadlock: nothing is left to run, and these wait (innermost last): the caller of the scheduler";
    for (const Loop* loop : m_running) {
        message += ", '" + loop->name + "' (group " + std::to_string(loop->group) + ")";
    }
    if (!m_paused.empty()) {
        message += "; some groups are paused";
    }
    obr::GlobalErrorHandler::doAssert(false, "step()", __FILE__, __LINE__, __func__, message.c_str());
}

void SimulatedScheduler::Impl::stop(Loop& loop)
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
void SimulatedScheduler::Impl::end(Loop& loop)
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

void SimulatedScheduler::Impl::remove(const std::shared_ptr<Loop>& loop)
{
    stop(*loop);
    end(*loop);
    std::erase(m_loops, loop);
}

void SimulatedScheduler::Impl::kill(std::uint64_t group)
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

void SimulatedScheduler::Impl::leaveBehind(std::uint64_t group, const std::string& name, TimeNs until) noexcept
{
    for (const auto& loop : m_loops) {
        if (loop->group == group && loop->name == name) {
            loop->behindUntil = until;
        }
    }
}

class SimulatedScheduler::Condition final : public IConditionImpl {
public:
    explicit Condition(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}

    void notifyAll() override {} // the predicate is asked after every step
    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline) override
    {
        return m_impl->wait(lock, predicate, deadline);
    }

private:
    const std::shared_ptr<Impl> m_impl;
};

class SimulatedScheduler::RunLoop final : public IRunLoop {
public:
    RunLoop(std::shared_ptr<Impl> impl, const std::string& name)
        : m_impl(std::move(impl)), m_loop(m_impl->add(name, nullptr))
    {}
    ~RunLoop() override { m_impl->remove(m_loop); }

    void enque(util::SharedPtr<ActiveObjectEvent> event) override
    {
        m_impl->push(*m_loop, [owned = std::move(event)] { owned->execute(); });
    }
    void stop() override { m_impl->stop(*m_loop); }
    bool isCurrent() const noexcept override { return m_impl->isInnermost(*m_loop); }
    void watch(util::UniqueFunction<void(TimeNs)> tell) override { m_loop->tell = std::move(tell); }
    TimeNs lap() override { return m_impl->lap(*m_loop); }
    TimeNs heldFor() const noexcept override { return m_loop->tell ? m_impl->heldFor(*m_loop) : 0; }

private:
    const std::shared_ptr<Impl> m_impl;
    const std::shared_ptr<Loop> m_loop;
};

class SimulatedScheduler::LoopReactor final : public Reactor {
public:
    LoopReactor(std::shared_ptr<Impl> impl, const std::string& name)
        : m_impl(std::move(impl)), m_loop(m_impl->add(name, this))
    {}
    ~LoopReactor() override { m_impl->remove(m_loop); }

    void post(Task task) override { m_impl->push(*m_loop, std::move(task)); }

    Id startTimer(TimeNs when, Task task) override
    {
        if (!isOnLoop(__func__)) {
            return 0;
        }
        const Id id = ++m_loop->lastId;
        m_loop->timers.start(id, when, std::move(task));
        return id;
    }
    void cancelTimer(Id id) override
    {
        if (isOnLoop(__func__)) {
            m_loop->timers.cancel(id);
        }
    }

    Id watch(int, unsigned, ReadyFunction) override
    {
        obr::GlobalErrorHandler::doAssert(false, "no descriptors", __FILE__, __LINE__, __func__,
                                          "a simulated reactor cannot watch descriptors; use the memory network");
        return 0;
    }
    void changeInterest(Id, unsigned) override {}
    void unwatch(Id) override {}

    TimeNs lap() override { return isOnLoop(__func__) ? m_impl->lap(*m_loop) : 0; }
    TimeNs heldFor() const noexcept override { return m_impl->heldFor(*m_loop); }
    void atTurnEnd(Task task) override
    {
        if (isOnLoop(__func__)) {
            m_loop->turnEnd.push_back(std::move(task));
        }
    }
    void stop() override { m_impl->stop(*m_loop); }
    bool isCurrent() const noexcept override { return m_impl->isInnermost(*m_loop); }

private:
    /// False where nothing can be arranged: after the loop's end, and, after a failed assertion, outside of it.
    bool isOnLoop(const char* function) const
    {
        if (isCurrent()) {
            return !m_loop->isDead;
        }
        if (!m_loop->isDead) {
            const std::string message = "called outside of the loop '" + m_loop->name + "'";
            obr::GlobalErrorHandler::doAssert(false, "isCurrent()", __FILE__, __LINE__, function, message.c_str());
        }
        return false;
    }

    const std::shared_ptr<Impl> m_impl;
    const std::shared_ptr<Loop> m_loop;
};

SimulatedScheduler::SimulatedScheduler(std::uint64_t seed) : m_impl(std::make_shared<Impl>(seed)) {}

SimulatedScheduler::~SimulatedScheduler() = default;

std::unique_ptr<IRunLoop> SimulatedScheduler::makeRunLoop(const std::string& name)
{
    return std::make_unique<RunLoop>(m_impl, name);
}

std::shared_ptr<Reactor> SimulatedScheduler::makeReactor(const std::string& name)
{
    return std::make_shared<LoopReactor>(m_impl, name);
}

std::unique_ptr<IConditionImpl> SimulatedScheduler::makeCondition()
{
    return std::make_unique<Condition>(m_impl);
}

TimeNs SimulatedScheduler::now() const noexcept
{
    return m_impl->now();
}

bool SimulatedScheduler::step()
{
    return m_impl->step();
}

std::size_t SimulatedScheduler::runReady()
{
    std::size_t steps = 0;
    while (m_impl->step()) {
        ++steps;
    }
    return steps;
}

void SimulatedScheduler::runUntil(TimeNs until)
{
    runReady();
    for (TimeNs next = m_impl->nextDue(); next <= until && next != NEVER; next = m_impl->nextDue()) {
        m_impl->advanceTo(next);
        runReady();
    }
    m_impl->advanceTo(until);
}

bool SimulatedScheduler::runAll(std::size_t limit)
{
    for (std::size_t steps = 0; steps < limit; ++steps) {
        if (m_impl->step()) {
            continue;
        }
        const TimeNs next = m_impl->nextDue();
        if (next == NEVER) {
            return true;
        }
        m_impl->advanceTo(next);
    }
    return false;
}

void SimulatedScheduler::setGroup(std::uint64_t group) noexcept
{
    m_impl->setGroup(group);
}

void SimulatedScheduler::pauseGroup(std::uint64_t group)
{
    m_impl->pause(group);
}

void SimulatedScheduler::continueGroup(std::uint64_t group)
{
    m_impl->resume(group);
}

void SimulatedScheduler::killGroup(std::uint64_t group)
{
    m_impl->kill(group);
}

void SimulatedScheduler::leaveBehind(std::uint64_t group, const std::string& loop, TimeNs until)
{
    m_impl->leaveBehind(group, loop, until);
}

std::uint64_t SimulatedScheduler::draw(std::uint64_t bound) noexcept
{
    return m_impl->draw(bound);
}

} // namespace comm
