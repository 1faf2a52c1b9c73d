#ifndef KESACTL_CHECKRESULT_H
#define KESACTL_CHECKRESULT_H

#include <runtime/v02/config/KesaConfig.h>

#include <optional>
#include <string>
#include <vector>

namespace kesactl {

/// What `check-config` found out.
struct CheckResult {
    struct Complaint {
        int severity;     ///< 2 hint, 3 warning, 4 error
        std::string path; ///< of the value in the document
        int line;         ///< from 1; 0 when there is none
        int column;
        std::string text;
    };
    std::string file; ///< empty: there is none, and the built-in document counts
    std::optional<std::string> process;
    std::string partition; ///< of the process, when one is named
    const kesa::runtime::v02::KesaConfig& config;
    bool isValid;
    util::config::Value comm; ///< what counts of it
    std::string runDirectory;
    std::string runDirectorySource; ///< what names it
    std::vector<Complaint> complaints;
};

} // namespace kesactl

#endif
