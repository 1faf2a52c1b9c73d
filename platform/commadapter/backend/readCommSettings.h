#ifndef KESA_COMMADAPTER_BACKEND_READCOMMSETTINGS_H
#define KESA_COMMADAPTER_BACKEND_READCOMMSETTINGS_H

#include "backend/connection/CommSettings.h"

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <string>
#include <vector>

namespace kesa::commadapter {

/// Reads the "comm" member of a configuration document; what is wrong in it becomes a warning, and keeps its default.
/// Paths begin with "comm".
CommSettings readCommSettings(const util::config::Value& comm, std::vector<util::config::Complaint>& complaints);
/// The same from the document of this process. One that cannot be read is the configuration reader's to complain about;
/// here it counts as empty. Who tells the complaints, the backend, gives `sentences`.
CommSettings readCommSettings(std::vector<std::string>* sentences = nullptr);

} // namespace kesa::commadapter

#endif
