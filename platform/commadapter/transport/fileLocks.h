#ifndef KESA_COMMADAPTER_TRANSPORT_FILELOCKS_H
#define KESA_COMMADAPTER_TRANSPORT_FILELOCKS_H

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

} // namespace kesa::commadapter::transport

#endif
