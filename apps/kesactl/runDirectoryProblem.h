#ifndef KESACTL_RUNDIRECTORYPROBLEM_H
#define KESACTL_RUNDIRECTORYPROBLEM_H

#include "RunDirectoryFacts.h"

#include <string>

namespace kesactl {

/// Why no process of this user can meet others in that run directory.
struct RunDirectoryProblem {
    std::string text;   ///< with the error of the system; empty: nothing is in the way
    std::string advice; ///< what to do

    std::string sentence() const { return text + "; " + advice; }
};

/// `source`: what names the directory, as `RunDirectory::source`.
RunDirectoryProblem findProblem(const RunDirectoryFacts& directory, const std::string& source);

/// The same of the one that counts for this process.
RunDirectoryProblem findProblem();

} // namespace kesactl

#endif
