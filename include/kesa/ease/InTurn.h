#ifndef KESA_EASE_INTURN_H
#define KESA_EASE_INTURN_H

#include <comm/Condition.h>
#include <util/UniqueFunction.h>

#include <deque>
#include <mutex>

namespace kesa::detail {

/// Calls that are made one at a time, in the order in which they were left, with no lock held: by the thread that comes
/// first, also those that others leave meanwhile. So who is called may wait for anything, and no two who call each
/// other wait in a circle. Any thread.
class KESA_API InTurn {
public:
    using Call = util::UniqueFunction<void()>;

    /// To be followed by `run`, which may need a lock less than this.
    void leave(Call call);
    /// Makes the calls that were left. Returns at once while one is under way, also from inside of it: who makes that
    /// goes on with these. What a call throws is traced (4) on "KESA_EASE".
    void run();
    /// What was left is dropped, and all that comes. Waits for a call that is under way, unless this comes from inside
    /// of it.
    void end();

private:
    std::mutex m_mutex; ///< of all below
    comm::Condition m_changed;
    std::deque<Call> m_left;
    bool m_isCalling = false; ///< one is under way
    bool m_hasEnded = false;
};

} // namespace kesa::detail

#endif
