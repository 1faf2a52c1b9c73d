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
    std::string file; ///< empty when no document was found
    std::optional<std::string> process;
    std::string partition; ///< of the process, when one is named
    const kesa::runtime::v02::KesaConfig& config;
    bool isValid;
    std::vector<Complaint> complaints;
};

} // namespace kesactl

#endif
