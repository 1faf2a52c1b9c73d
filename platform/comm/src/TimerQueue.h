#ifndef COMM_TIMERQUEUE_H
#define COMM_TIMERQUEUE_H

#include <comm/Reactor.h>

#include <cstdint>
#include <map>
#include <tuple>
#include <unordered_map>

namespace comm {

/// The timers of one loop, by time; those of one time in the order of their ids.
class TimerQueue {
public:
    void start(Reactor::Id id, TimeNs when, Reactor::Task task);
    void cancel(Reactor::Id id);
    void clear();
    bool isEmpty() const noexcept { return m_timers.empty(); }
    /// When the first is due; `NEVER` when there is none.
    TimeNs next() const noexcept { return m_timers.empty() ? NEVER : m_timers.begin()->first.when; }
    /// The first that is due at `time` and has at most the id `newest`; an empty function when there is none.
    Reactor::Task takeDue(TimeNs time, Reactor::Id newest = UINT64_MAX);

private:
    struct Key {
        TimeNs when;
        Reactor::Id id;
        friend bool operator<(const Key& a, const Key& b) noexcept
        {
            return std::tie(a.when, a.id) < std::tie(b.when, b.id);
        }
    };
    std::map<Key, Reactor::Task> m_timers;
    std::unordered_map<Reactor::Id, TimeNs> m_times; ///< to find a key by its id
};

} // namespace comm

#endif
