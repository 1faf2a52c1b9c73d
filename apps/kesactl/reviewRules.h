#ifndef KESACTL_REVIEWRULES_H
#define KESACTL_REVIEWRULES_H

#include <runtime/v02/config/ConfigReport.h>

#include <string>
#include <utility>
#include <vector>

namespace kesactl {

/// Rules in words, each with what it is called: "rule 1 (line 4)".
using RulesInWords = std::vector<std::pair<std::string, std::string>>;

struct RulesReview {
    RulesInWords words;
    bool isWrong = false;
};

/// Of "registry", "policy". Complains in `report` as the registry does at its start; only it does not start when that
/// is wrong.
RulesReview reviewPolicy(kesa::runtime::v02::ConfigReport& report);

/// Of "access". Complains in `report` of what closes the services of a process, which starts all the same.
RulesReview reviewAccess(kesa::runtime::v02::ConfigReport& report);

} // namespace kesactl

#endif
