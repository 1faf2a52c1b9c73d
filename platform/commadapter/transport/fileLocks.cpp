#include "transport/fileLocks.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace kesa::commadapter::transport {

namespace {

FileLocks readOnce()
{
    FileLocks locks;
    std::ifstream in("/proc/locks");
    for (std::string line; std::getline(in, line);) {
        std::istringstream words(line);
        std::string number;
        std::string kind;
        std::string mode;
        std::string access;
        std::string file;
        pid_t pid = 0;
        unsigned major = 0;
        unsigned minor = 0;
        unsigned long inode = 0;
        words >> number >> kind >> mode >> access >> pid >> file;
        if (kind == "FLOCK" && std::sscanf(file.c_str(), "%x:%x:%lu", &major, &minor, &inode) == 3) {
            locks.emplace(inode, FileLock{::makedev(major, minor), pid});
        }
    }
    return locks;
}

/// False when all of `more` were there.
bool add(FileLocks& locks, const FileLocks& more)
{
    bool isNew = false;
    for (const auto& lock : more) {
        const auto [begin, end] = locks.equal_range(lock.first);
        if (std::find(begin, end, lock) == end) {
            locks.insert(lock);
            isNew = true;
        }
    }
    return isNew;
}

} // namespace

/// The kernel tells them in pieces; what is released between two makes it pass over others.
FileLocks readFileLocks()
{
    constexpr int MOST_READINGS = 4;
    FileLocks locks = readOnce();
    for (int readings = 1; readings < MOST_READINGS && add(locks, readOnce()); ++readings) {
    }
    return locks;
}

} // namespace kesa::commadapter::transport
