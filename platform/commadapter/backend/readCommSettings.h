#ifndef KESA_COMMADAPTER_BACKEND_READCOMMSETTINGS_H
#define KESA_COMMADAPTER_BACKEND_READCOMMSETTINGS_H

#include "backend/CommBackend.h"

#include <util/config/Value.h>

#include <string>
#include <vector>

namespace kesa::commadapter {

/// Reads the "comm" member of a configuration document; what is wrong in it becomes a complaint that says what to do,
/// and keeps its default.
CommSettings readCommSettings(const util::config::Value& comm, std::vector<std::string>& complaints);
/// The same from the document of this process. One that cannot be read is the configuration reader's to complain about;
/// here it counts as empty. Complaints begin with its file.
CommSettings readCommSettings(std::vector<std::string>& complaints);

} // namespace kesa::commadapter

#endif
