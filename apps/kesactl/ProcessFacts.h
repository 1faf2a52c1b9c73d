#ifndef KESACTL_PROCESSFACTS_H
#define KESACTL_PROCESSFACTS_H

#include <comm/Clock.h>

#include <sys/types.h>

#include <string>

namespace kesactl {

/// What the kernel tells of a running process; what this user may not know is empty.
struct ProcessFacts {
    explicit ProcessFacts(pid_t pid);

    bool isThere = false;
    bool isStopped = false;   ///< by a signal or a debugger
    bool isTraced = false;    ///< by a debugger
    bool isReplaced = false;  ///< its program or one of Kesa's libraries was replaced since it started
    comm::TimeNs started = 0; ///< on the wall clock
    uid_t uid = 0;
    std::string user;
    std::string executable; ///< its path, else its name
    std::string library;    ///< "libkesa_runtime.so.0.1.0"; empty for a program that has it built in
};

/// "continue it with kill -CONT 812", and as whom, where this user may not.
std::string howToContinue(pid_t pid);

} // namespace kesactl

#endif
