#ifndef COMM_OWNDESCRIPTORS_H
#define COMM_OWNDESCRIPTORS_H

#include <obr/api.h>

#include <functional>

namespace comm {

/// The descriptors of this process that are no other's business, and what becomes of them in a child made by `fork`
/// without `exec`: nothing there may use them. The child's copies are closed before `fork` returns in it, so that peers
/// see the end of a connection when this process ends, not when its last child does. Any thread.
class KESA_API OwnDescriptors {
public:
    /// Calls `open`, which makes a descriptor or fails, and answers what it answered, with its `errno`. No child is
    /// made meanwhile, which would keep the descriptor for as long as it lives; so `open` must not wait for anything.
    static int open(const std::function<int()>& open);
    /// Of `open`.
    static void close(int descriptor);

    /// Ends the sockets among them for both sides, and closes none; from then on `open` fails (ESHUTDOWN). For a
    /// process that crashes, of which other threads may run on for a while: safe in the handler of a signal. Of
    /// descriptors beyond 65,535 it knows nothing.
    static void endSockets() noexcept;

    /// Differs between a process and its children. What remembers the number it was made with can tell that it has
    /// been carried into a child.
    static unsigned generation() noexcept;
};

} // namespace comm

#endif
