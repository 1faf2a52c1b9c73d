// The scheduler's loops, reactors and conditions as their users have them; what they do is in `SimulatedLoops`.
#include <comm/SimulatedScheduler.h>

#include <comm/SimulatedLoops.h>
#include <obr/GlobalErrorHandler.h>

namespace comm {

class SimulatedScheduler::Condition final : public IConditionImpl {
public:
    explicit Condition(std::shared_ptr<SimulatedLoops> all) : m_all(std::move(all)) {}

    void notifyAll() override {} // the predicate is asked after every step
    bool wait(std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate, TimeNs deadline) override
    {
        return m_all->wait(lock, predicate, deadline);
    }

private:
    const std::shared_ptr<SimulatedLoops> m_all;
};

class SimulatedScheduler::RunLoop final : public IRunLoop {
public:
    RunLoop(std::shared_ptr<SimulatedLoops> all, const std::string& name)
        : m_all(std::move(all)), m_loop(m_all->add(name, nullptr))
    {}
    ~RunLoop() override { m_all->remove(m_loop); }

    void enque(util::SharedPtr<ActiveObjectEvent> event) override
    {
        m_all->push(*m_loop, [owned = std::move(event)] { owned->execute(); });
    }
    void stop() override { m_all->stop(*m_loop); }
    bool isCurrent() const noexcept override { return m_all->isInnermost(*m_loop); }
    void watch(util::UniqueFunction<void(TimeNs)> tell) override { m_loop->tell = std::move(tell); }
    TimeNs lap() override { return m_all->lap(*m_loop); }
    TimeNs heldFor() const noexcept override { return m_loop->tell ? m_all->heldFor(*m_loop) : 0; }

private:
    const std::shared_ptr<SimulatedLoops> m_all;
    const std::shared_ptr<SimulatedLoop> m_loop;
};

class SimulatedScheduler::LoopReactor final : public Reactor {
public:
    LoopReactor(std::shared_ptr<SimulatedLoops> all, const std::string& name)
        : m_all(std::move(all)), m_loop(m_all->add(name, this))
    {}
    ~LoopReactor() override { m_all->remove(m_loop); }

    void post(Task task) override { m_all->push(*m_loop, std::move(task)); }

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

    TimeNs lap() override { return isOnLoop(__func__) ? m_all->lap(*m_loop) : 0; }
    TimeNs heldFor() const noexcept override { return m_all->heldFor(*m_loop); }
    void atTurnEnd(Task task) override
    {
        if (isOnLoop(__func__)) {
            m_loop->turnEnd.push_back(std::move(task));
        }
    }
    void stop() override { m_all->stop(*m_loop); }
    bool isCurrent() const noexcept override { return m_all->isInnermost(*m_loop); }

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

    const std::shared_ptr<SimulatedLoops> m_all;
    const std::shared_ptr<SimulatedLoop> m_loop;
};

SimulatedScheduler::SimulatedScheduler(std::uint64_t seed) : m_all(std::make_shared<SimulatedLoops>(seed)) {}

SimulatedScheduler::~SimulatedScheduler() = default;

std::unique_ptr<IRunLoop> SimulatedScheduler::makeRunLoop(const std::string& name)
{
    return std::make_unique<RunLoop>(m_all, name);
}

std::shared_ptr<Reactor> SimulatedScheduler::makeReactor(const std::string& name)
{
    return std::make_shared<LoopReactor>(m_all, name);
}

std::unique_ptr<IConditionImpl> SimulatedScheduler::makeCondition()
{
    return std::make_unique<Condition>(m_all);
}

TimeNs SimulatedScheduler::now() const noexcept
{
    return m_all->now();
}

bool SimulatedScheduler::step()
{
    return m_all->step();
}

std::size_t SimulatedScheduler::runReady()
{
    std::size_t steps = 0;
    while (m_all->step()) {
        ++steps;
    }
    return steps;
}

void SimulatedScheduler::runUntil(TimeNs until)
{
    runReady();
    for (TimeNs next = m_all->nextDue(); next <= until && next != NEVER; next = m_all->nextDue()) {
        m_all->advanceTo(next);
        runReady();
    }
    m_all->advanceTo(until);
}

bool SimulatedScheduler::runAll(std::size_t limit)
{
    for (std::size_t steps = 0; steps < limit; ++steps) {
        if (m_all->step()) {
            continue;
        }
        const TimeNs next = m_all->nextDue();
        if (next == NEVER) {
            return true;
        }
        m_all->advanceTo(next);
    }
    return false;
}

void SimulatedScheduler::setGroup(std::uint64_t group) noexcept
{
    m_all->setGroup(group);
}

void SimulatedScheduler::pauseGroup(std::uint64_t group)
{
    m_all->pause(group);
}

void SimulatedScheduler::continueGroup(std::uint64_t group)
{
    m_all->resume(group);
}

void SimulatedScheduler::killGroup(std::uint64_t group)
{
    m_all->kill(group);
}

void SimulatedScheduler::leaveBehind(std::uint64_t group, const std::string& loop, TimeNs until)
{
    m_all->leaveBehind(group, loop, until);
}

std::uint64_t SimulatedScheduler::draw(std::uint64_t bound) noexcept
{
    return m_all->draw(bound);
}

} // namespace comm
