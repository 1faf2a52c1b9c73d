#ifndef KESACTL_REPLACEDREALM_H
#define KESACTL_REPLACEDREALM_H

#include "ProcessReport.h"

#include <string>
#include <vector>

namespace kesactl {

/// That somebody removed the file `realm` of a run directory, and the next process made it anew: those who have the
/// realm of before reach all others by their names, but no locator that has a realm.
struct ReplacedRealm {
    std::string text;   ///< who has which; empty: all have that of the file
    std::string advice; ///< what to do

    std::string sentence() const { return text + "; " + advice; }
};

/// By what the processes of that directory have said.
ReplacedRealm findReplacedRealm(const RunDirectoryFacts& directory, const std::vector<ProcessReport>& reports);

} // namespace kesactl

#endif
