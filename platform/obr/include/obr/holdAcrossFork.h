#ifndef OBR_HOLDACROSSFORK_H
#define OBR_HOLDACROSSFORK_H

#include <obr/GlobalErrorHandler.h>

#include <pthread.h>

namespace obr {

/// From now on the lock that `LOCK` returns is held while the process forks, so that a child finds it free, and whole
/// what it guards. For locks that are never destroyed, once for each: of two that are taken one inside the other, the
/// inner one first. Nothing that runs with the lock held may fork, or call what a user has given us. Nor may a handler
/// of a signal fork, which POSIX does not promise either: the thread it has interrupted may hold the lock.
template <auto LOCK>
void holdAcrossFork()
{
    if (::pthread_atfork([] { LOCK().lock(); }, [] { LOCK().unlock(); }, [] { LOCK().unlock(); }) != 0) {
        GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, "no memory for fork handlers");
    }
}

} // namespace obr

#endif
