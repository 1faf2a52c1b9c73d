#ifndef KESACTL_NAMEHOLDERS_H
#define KESACTL_NAMEHOLDERS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kesactl {

/// A running process that has a name in some run directory, found by the lock file that it holds open.
struct NameHolder {
    pid_t pid;
    std::string name;      ///< as in locators
    std::string directory; ///< where the lock file stands, or stood
    bool isLost;           ///< that file is not there any more: who starts now does not find the process
};

/// Those whose open files this user may look at.
std::vector<NameHolder> findNameHolders();

/// Whether the process has a lock file open that stands there now.
bool holdsNameIn(pid_t pid, const std::string& directory);

} // namespace kesactl

#endif
