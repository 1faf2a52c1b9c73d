#include "TimerQueue.h"

#include <utility>

namespace comm {

void TimerQueue::start(Reactor::Id id, TimeNs when, Reactor::Task task)
{
    m_timers.emplace(Key{when, id}, std::move(task));
    m_times.emplace(id, when);
}

void TimerQueue::cancel(Reactor::Id id)
{
    const auto found = m_times.find(id);
    if (found != m_times.end()) {
        const auto timer = m_timers.extract(Key{found->second, id}); // dies when both tables are in order
        m_times.erase(found);
    }
}

void TimerQueue::clear()
{
    // Destructors of what is dropped may cancel.
    m_times.clear();
    std::exchange(m_timers, {}).clear();
}

Reactor::Task TimerQueue::takeDue(TimeNs time, Reactor::Id newest)
{
    for (auto next = m_timers.begin(); next != m_timers.end() && next->first.when <= time; ++next) {
        if (next->first.id <= newest) {
            auto timer = m_timers.extract(next);
            m_times.erase(timer.key().id);
            return std::move(timer.mapped());
        }
    }
    return {};
}

} // namespace comm
