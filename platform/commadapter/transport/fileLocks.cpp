#include "transport/fileLocks.h"

#include <signal.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>

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

/// Whether the process has the file open as the one that took the lock had it.
bool hasLock(const std::filesystem::path& process, const struct stat& file)
{
    std::error_code failed; // of a process that has ended, or of another user
    for (const auto& entry : std::filesystem::directory_iterator(process / "fd", failed)) {
        struct stat opened {};
        if (::stat(entry.path().c_str(), &opened) != 0 || opened.st_ino != file.st_ino ||
            opened.st_dev != file.st_dev) {
            continue;
        }
        std::ifstream in(process / "fdinfo" / entry.path().filename());
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("lock:", 0) == 0 && line.find("FLOCK") != std::string::npos) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

pid_t findHeir(const struct stat& file, pid_t taker)
{
    if (taker > 0 && (::kill(taker, 0) == 0 || errno != ESRCH)) {
        return 0;
    }
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", failed)) {
        const std::string name = entry.path().filename().string();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ec == std::errc() &&
            hasLock(entry.path(), file)) {
            return pid;
        }
    }
    return 0;
}

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
