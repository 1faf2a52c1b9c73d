#ifndef KESA_EASE_ANNOUNCECRASHES_H
#define KESA_EASE_ANNOUNCECRASHES_H

#include <obr/api.h>

namespace kesa {

/// Others learn that this process has crashed before its core is written: until then the kernel keeps its connections,
/// for as long as that takes.
///
/// Once called, SIGSEGV, SIGBUS, SIGFPE, SIGILL and SIGABRT first end the connections of the process, so that its
/// services are gone for everybody and what was asked of them has failed; then what was installed before handles the
/// signal, as if this had not been there: a handler, or the end of the process with its core. What is ignored stays so.
/// It takes part no more, whatever its other threads do until it is gone: so no program calls this in which a handler
/// makes good for one of these signals and goes on.
///
/// Call it when the program's own handlers are installed, as those of a crash reporter; of one that comes later it
/// depends whether it passes the signal on. Any thread; a further call does nothing but in a child made by `fork`, for
/// which a call of its parent does not count. A stack that has overflowed is announced in a thread that has an
/// alternate one (`sigaltstack`).
KESA_API void announceCrashes();

} // namespace kesa

#endif
