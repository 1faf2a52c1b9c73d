#ifndef KESACTL_REPLACEDREALM_H
#define KESACTL_REPLACEDREALM_H

#include "ProcessReport.h"

#include <string>
#include <vector>

namespace kesactl {

/// That somebody removed the file `realm` of a run directory while processes ran, and perhaps the next one made it
/// anew: those who have the realm of before reach all others by their names, but no locator that has a realm.
struct ReplacedRealm {
    std::string text;   ///< who has which, or that there is none; empty: all have that of the file
    std::string advice; ///< what to do

    std::string sentence() const { return text + "; " + advice; }
};

/// By what the processes of that directory have said; those that do not answer at all count, where there is no realm.
ReplacedRealm findReplacedRealm(const RunDirectoryFacts& directory, const std::vector<ProcessReport>& reports);

} // namespace kesactl

#endif
