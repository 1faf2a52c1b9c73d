#include "transport/fileLocks.h"

#include <sys/sysmacros.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace kesa::commadapter::transport {

FileLocks readFileLocks()
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

} // namespace kesa::commadapter::transport
