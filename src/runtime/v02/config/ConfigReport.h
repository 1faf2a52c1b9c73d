#ifndef KESA_RUNTIME_V02_CONFIG_CONFIGREPORT_H
#define KESA_RUNTIME_V02_CONFIG_CONFIGREPORT_H

#include <util/config/Value.h>

#include <string>
#include <string_view>
#include <vector>

namespace kesa::runtime::v02 {

/// How the reading of a document went, for tools that explain it to a user.
struct ConfigReport {
    struct Complaint {
        int severity;     ///< as of trace lines: 3 warning, 4 error
        bool isFatal;     ///< it makes the configuration invalid
        std::string path; ///< of the value in the document, "services[2].type"; empty for the document itself
        std::string text;
    };
    std::vector<Complaint> complaints; ///< in the order of reading

    bool isMissing = false;   ///< there is no document at all
    std::string file;         ///< that counts, also when it could not be read; empty without one
    util::config::Value root; ///< what was read as the configuration; undefined when nothing was
    std::string rootPath;     ///< of the root in the document: "kesa", or empty for the document itself
    /// The path in the document of a key, or of any value below the root.
    std::string path(const std::string& key) const { return rootPath.empty() ? key : rootPath + "." + key; }
    std::vector<std::string> duplicateKeys; ///< paths in the document

    /// The key as paths have it: of a very long one the beginning, since each value below it repeats it.
    static std::string_view shortened(std::string_view key) { return key.substr(0, 256); }
};

} // namespace kesa::runtime::v02

#endif
