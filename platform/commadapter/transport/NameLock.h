#ifndef KESA_COMMADAPTER_TRANSPORT_NAMELOCK_H
#define KESA_COMMADAPTER_TRANSPORT_NAMELOCK_H

#include "transport/Descriptor.h"

#include <sys/types.h>

#include <string>

namespace kesa::commadapter::transport {

/// What its file is called.
std::string nameLockFile(const std::string& process);

/// Opens the lock file of a name, or makes it, and takes its lock: the name is had for as long as `lock` is open. True
/// on failure: `why` says what is in the way and what to do; `isHeld`: a living process has the name, or it is kept for
/// another user. Waits for nobody but a process that is being ended by the kernel, two seconds at most.
[[nodiscard]] bool takeNameLock(const Descriptor& directory, const std::string& process, Descriptor& lock, bool& isHeld,
                                std::string& why);

/// Whether `lock`, which this process holds, is on the file by which others see that it has the name.
bool isNameLockThere(int directory, const std::string& process, int lock);

/// Who has the lock of a name in the directory at this path; 0 when nobody has, or nobody that the kernel tells of.
/// Takes no lock.
pid_t findNameHolder(const std::string& directory, const std::string& process);

/// Why a lock file that is there keeps users from a name that their rights in the directory would give them.
struct LockFileProblem {
    bool isForThisUser = true; ///< else for others only
    bool isOfAnother = false;  ///< in a directory with the sticky bit, in which a name is of the user who had it first
    std::string owner;         ///< that user
    bool isHeld = false;       ///< a living process has the name, too; then the text says which
    std::string text;          ///< empty: it keeps nobody
    std::string advice;        ///< what else to do; may be empty

    std::string sentence() const { return advice.empty() ? text : text + "; " + advice; }
};

/// Looks only, and takes no lock. `encodedName`: as in locators.
LockFileProblem examineLockFile(int directory, const std::string& encodedName);

} // namespace kesa::commadapter::transport

#endif
