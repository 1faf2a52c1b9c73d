#include <comm/Condition.h>

#include <comm/ActiveObject.h>
#include <comm/Scheduler.h>

#include <utility>

namespace comm {

namespace {

/// What an event and the one who waits for it share.
struct Errand {
    enum class State { eWAITING, eDONE, eDROPPED, eABANDONED };

    std::function<void()> work;
    std::mutex mutex; ///< between the loop that works and the thread that waits
    Condition changed;
    State state = State::eWAITING; ///< under `mutex`

    /// The first word counts.
    void conclude(State end)
    {
        {
            const std::lock_guard lock(mutex);
            if (state != State::eWAITING) {
                return;
            }
            state = end;
        }
        changed.notifyAll();
    }
};

class ErrandEvent final : public ActiveObjectEvent {
public:
    explicit ErrandEvent(std::shared_ptr<Errand> errand) : m_errand(std::move(errand)) {}
    ~ErrandEvent() override { m_errand->conclude(Errand::State::eDROPPED); }

    int execute() override
    {
        {
            const std::lock_guard lock(m_errand->mutex);
            if (m_errand->state != Errand::State::eWAITING) {
                return 0;
            }
        }
        m_errand->work();
        m_errand->conclude(Errand::State::eDONE);
        return 0;
    }
    bool isType(const EventType& type) const override { return type == TYPE; }

private:
    static inline const EventType TYPE{};
    std::shared_ptr<Errand> m_errand;
};

} // namespace

Condition::Condition() : m_impl(Scheduler::current().makeCondition()) {}

Condition::~Condition() = default;

void Condition::notifyAll()
{
    m_impl->notifyAll();
}

bool waitFor(Condition& condition, std::unique_lock<std::mutex>& lock, const std::function<bool()>& predicate,
             TimeNs deadline)
{
    return condition.m_impl->wait(lock, predicate, deadline);
}

bool runAndWait(ActiveObject& activeObject, const std::function<void()>& work)
{
    if (activeObject.isCurrentThread()) {
        work();
        return true;
    }
    const auto errand = std::make_shared<Errand>();
    errand->work = work;
    activeObject.enque(std::make_shared<ErrandEvent>(errand));
    std::unique_lock lock(errand->mutex);
    waitFor(errand->changed, lock, [&errand] { return errand->state != Errand::State::eWAITING; });
    // A simulated wait may give up: the work refers to what the caller is about to leave, so it must not run any more.
    if (errand->state == Errand::State::eWAITING) {
        errand->state = Errand::State::eABANDONED;
    }
    return errand->state == Errand::State::eDONE;
}

} // namespace comm
