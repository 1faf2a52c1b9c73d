#ifndef KESACTL_CHECKRESULT_H
#define KESACTL_CHECKRESULT_H

#include "reviewRules.h"

#include <runtime/v02/config/KesaConfig.h>
#include <util/config/Complaint.h>

#include <optional>
#include <string>
#include <vector>

namespace kesactl {

/// What `check-config` found out.
struct CheckResult {
    std::string file; ///< empty: there is none, and the built-in document counts
    std::optional<std::string> process;
    std::string partition; ///< of the process, when one is named
    const kesa::runtime::v02::KesaConfig& config;
    bool isValid;
    bool counts; ///< the document; else a process goes on with the defaults
    bool starts; ///< a process with it, though what is wrong with the rules
    RulesReview policy;
    RulesReview access;
    util::config::Value comm; ///< what counts of it
    std::string runDirectory;
    std::string runDirectorySource; ///< what names it
    std::vector<util::config::Complaint> complaints;
};

} // namespace kesactl

#endif
