#ifndef KESACTL_PROCESSNAMES_H
#define KESACTL_PROCESSNAMES_H

#include <kesa/url.h>

#include <string>

namespace kesactl {

// A name has two forms: plain, as its process was given it, for sentences and commands; and as in locators, where
// characters are percent-encoded, for these and for the names of files.

/// The name, as in locators, of the process that a locator leads to.
std::string processOf(const kesa::url& locator);

/// Of a name as in locators; of what is none, the same.
std::string plainName(const std::string& encoded);

/// The plain name of the process that a locator leads to.
std::string plainProcessOf(const kesa::url& locator);

/// For a command whose only argument it is: `media`, `-- -media`.
std::string processArgument(const std::string& plain);

} // namespace kesactl

#endif
