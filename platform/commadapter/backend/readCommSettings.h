#ifndef KESA_COMMADAPTER_BACKEND_READCOMMSETTINGS_H
#define KESA_COMMADAPTER_BACKEND_READCOMMSETTINGS_H

#include "backend/connection/CommSettings.h"

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <cstddef>
#include <string>
#include <vector>

namespace kesa::commadapter {

/// What is wrong in the "comm" member of a document, with paths that begin with "comm".
struct CommFaults {
    std::size_t most = 1000; ///< that are listed: a document that is something else altogether may have millions
    std::vector<util::config::Complaint> complaints = {};
    std::size_t unlisted = 0; ///< how many more there are

    bool isFull() const noexcept { return complaints.size() >= most; }
};

/// Reads the "comm" member of a configuration document; what is wrong in it becomes a warning, and keeps its default,
/// which `settings` has.
CommSettings readCommSettings(const util::config::Value& comm, CommFaults& faults, CommSettings settings = {});
/// The same from the document of this process. One that cannot be read is the configuration reader's to complain about;
/// here it counts as empty. Who tells the complaints, the backend, gives `sentences`.
CommSettings readCommSettings(std::vector<std::string>* sentences = nullptr, const CommSettings& defaults = {});

} // namespace kesa::commadapter

#endif
