#ifndef KESA_RUNTIME_V02_CONFIG_CONFIGREPORT_H
#define KESA_RUNTIME_V02_CONFIG_CONFIGREPORT_H

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace kesa::runtime::v02 {

using util::config::Complaint;
using Severity = Complaint::Severity;

/// How the reading of a document went, for tools that explain it to a user.
struct ConfigReport {
    /// In the order of reading; an error is there when the configuration is invalid. Of warnings and hints there are no
    /// more than `MOST`: a document that is something else altogether may have millions.
    std::vector<Complaint> complaints;
    std::size_t errors = 0;   ///< among the complaints
    std::size_t unlisted = 0; ///< warnings and hints that are not among them
    static constexpr std::size_t MOST = 1000;

    void add(Complaint complaint)
    {
        const bool isError = complaint.severity == Severity::eERROR;
        if (!isError && isFullOfHints()) {
            ++unlisted;
            return;
        }
        errors += isError ? 1 : 0;
        complaints.push_back(std::move(complaint));
    }
    void clear()
    {
        complaints.clear();
        errors = unlisted = 0;
    }
    /// Further warnings and hints are only counted, so that there is no need to find words for them.
    bool isFullOfHints() const noexcept { return complaints.size() - errors >= MOST; }
    /// Further errors are not searched for.
    bool isFull() const noexcept { return errors >= MOST; }

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
