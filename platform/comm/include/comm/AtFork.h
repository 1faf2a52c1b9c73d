#ifndef COMM_ATFORK_H
#define COMM_ATFORK_H

#include <obr/api.h>

namespace comm {

/// What becomes of this process's things in a child made by `fork` without `exec`: nothing there may use them. The
/// child's copies of registered descriptors are closed before `fork` returns in it, so that peers see the end of a
/// connection when this process ends, not when its last child does. Any thread.
class KESA_API AtFork {
public:
    static void closeInChild(int descriptor);
    /// Before the descriptor is closed here: its number may be somebody else's at once. Unknown ones are ignored.
    static void forget(int descriptor);

    /// Differs between a process and its children. What remembers the number it was made with can tell that it has
    /// been carried into a child.
    static unsigned generation() noexcept;
};

} // namespace comm

#endif
