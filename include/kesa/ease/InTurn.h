#ifndef KESA_EASE_INTURN_H
#define KESA_EASE_INTURN_H

#include <obr/api.h>
#include <util/UniqueFunction.h>

#include <memory>

namespace kesa::detail {

/// Calls that are made one at a time, in the order in which they were left, with no lock held: by the thread that comes
/// first, also those that others leave meanwhile. So who is called may wait for anything, and no two who call each
/// other wait in a circle. Any thread.
///
/// No thread is kept for what others leave while these come back: an I/O loop makes, beyond its own, one call a turn,
/// until another thread comes; and who leaves more than can be called is slowed down, and makes the calls itself.
class KESA_API InTurn {
public:
    using Call = util::UniqueFunction<void()>;

    InTurn();
    InTurn(const InTurn&) = delete;
    InTurn& operator=(const InTurn&) = delete;
    ~InTurn();

    /// To be followed by `run`, which may need a lock less than this.
    void leave(Call call);
    /// Makes the calls that were left. Returns while another thread makes them, at once inside of a call and on an I/O
    /// loop; elsewhere it waits, 100 ms at most, while 256 or more are left, and then makes them if nobody else does.
    /// What a call throws is traced (4) on "KESA_EASE".
    void run();
    /// What was left is dropped, and all that comes. Waits for a call that is under way, unless this comes from inside
    /// of it.
    void end();

private:
    class Queue;
    const std::shared_ptr<Queue> m_queue;
};

} // namespace kesa::detail

#endif
