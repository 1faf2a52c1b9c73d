#ifndef KESA_COMMADAPTER_TRANSPORT_FILELOCKS_H
#define KESA_COMMADAPTER_TRANSPORT_FILELOCKS_H

#include <sys/stat.h>
#include <sys/types.h>

#include <map>

namespace kesa::commadapter::transport {

struct FileLock {
    dev_t device;
    pid_t holder;
    bool operator==(const FileLock&) const = default;
};
/// By the inode of the file.
using FileLocks = std::multimap<ino_t, FileLock>;

/// The locks on whole files that this process may see; others are those of another container. None without /proc.
FileLocks readFileLocks();

/// Who holds the lock on `file` after the process that took it has ended: a child that was made past the handlers of
/// `fork`. 0 while that process lives, and where none is found, as among the processes of another user.
pid_t findHeir(const struct stat& file, pid_t taker);

} // namespace kesa::commadapter::transport

#endif
