#ifndef KESACTL_MISSINGRIGHT_H
#define KESACTL_MISSINGRIGHT_H

#include <kesa/url.h>

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace kesactl {

/// That the user of a process may not connect to the process that `locator` names, by the mode of its socket: "its user
/// may not connect to …". Empty when it may, and in doubt.
std::string missingRight(std::int64_t pid, const kesa::url& locator);

/// What gives this user the right to a socket or directory that he may not use: to join its group, where that helps;
/// else `otherwise`. `bits`: those of the group that it takes.
std::string howToGetRight(const std::string& path, const std::string& otherwise, mode_t bits = S_IWGRP);

} // namespace kesactl

#endif
