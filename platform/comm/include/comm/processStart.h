#ifndef COMM_PROCESSSTART_H
#define COMM_PROCESSSTART_H

#include <comm/Clock.h>

#include <sys/types.h>

#include <cstdint>

namespace comm {

/// When a process of this machine began, as `wallClock` would have told then if it was not set since; 0 when that
/// cannot be known. The kernel keeps it in hundredths of a second. Reads a file of /proc; any thread.
KESA_API TimeNs processStart(pid_t pid);

/// The same as the kernel has it, in ticks since the machine's start: with the number it tells a process from all that
/// have had the number before, whatever is done to the clock. 0 when that cannot be known. Any thread.
KESA_API std::uint64_t processStartTicks(pid_t pid);

/// It is there, and stopped by a signal or a debugger. Reads a file of /proc; any thread.
KESA_API bool isProcessStopped(pid_t pid);

/// The kernel is ending it, or is about to since it has been killed: its descriptors, locks among them, may be there
/// still. Reads files of /proc; any thread.
KESA_API bool isProcessEnding(pid_t pid);

} // namespace comm

#endif
