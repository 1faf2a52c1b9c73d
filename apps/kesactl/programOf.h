#ifndef KESACTL_PROGRAMOF_H
#define KESACTL_PROGRAMOF_H

#include <sys/types.h>

#include <string>

namespace kesactl {

/// Whether no runtime is to be seen in a running process: it says nothing of itself, and has no name in the run
/// directory that counts. False where this user may not look.
bool isWithoutRuntime(pid_t pid);

/// What a name may mean that no process has.
struct ProgramOf {
    std::string
        text; ///< "the program 'media' runs as player (process 812)", or without a runtime; empty: nothing is known
    std::string advice; ///< what to do
};

/// By the processes of this user that run a program of that name.
ProgramOf findProgramOf(const std::string& name);

} // namespace kesactl

#endif
