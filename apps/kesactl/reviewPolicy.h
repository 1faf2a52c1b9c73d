#ifndef KESACTL_REVIEWPOLICY_H
#define KESACTL_REVIEWPOLICY_H

#include <runtime/v02/config/ConfigReport.h>

#include <string>
#include <utility>
#include <vector>

namespace kesactl {

/// The rules of "registry", "policy" in words, each with what it is called: "rule 1 (line 4)". Complains in `report` as
/// the registry would.
std::vector<std::pair<std::string, std::string>> reviewPolicy(kesa::runtime::v02::ConfigReport& report);

} // namespace kesactl

#endif
