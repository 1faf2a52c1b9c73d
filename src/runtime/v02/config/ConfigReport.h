#ifndef KESA_RUNTIME_V02_CONFIG_CONFIGREPORT_H
#define KESA_RUNTIME_V02_CONFIG_CONFIGREPORT_H

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kesa::runtime::v02 {

using util::config::Complaint;
using Severity = Complaint::Severity;

/// How the reading of a document went, for tools that explain it to a user.
struct ConfigReport {
    std::vector<Complaint> complaints; ///< in the order of reading; an error is there when the configuration is invalid
    /// Further errors are not searched for.
    bool isFull() const noexcept { return complaints.size() >= 1000; }

    bool listsAll = true;                ///< errors, not only the first, with which the reading of a process ends
    bool isMissing = false;              ///< there is no document at all
    std::string file;                    ///< that counts, also when it could not be read; empty without one
    util::config::Value root;            ///< what was read as the configuration; undefined when nothing was
    util::config::DocumentPath rootPath; ///< of the root in the document: its member "kesa", or the document itself
    /// Of a value below the root, in the document.
    util::config::DocumentPath path(util::config::DocumentPath belowRoot) const
    {
        belowRoot.insert(belowRoot.begin(), rootPath.begin(), rootPath.end());
        return belowRoot;
    }
    /// Null when there is none.
    const Complaint* firstError() const
    {
        const auto found = std::find_if(complaints.begin(), complaints.end(), [](const Complaint& complaint) {
            return complaint.severity == Severity::eERROR;
        });
        return found == complaints.end() ? nullptr : &*found;
    }
};

} // namespace kesa::runtime::v02

#endif
