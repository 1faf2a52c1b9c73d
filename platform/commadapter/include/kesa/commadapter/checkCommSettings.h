#ifndef KESA_COMMADAPTER_CHECKCOMMSETTINGS_H
#define KESA_COMMADAPTER_CHECKCOMMSETTINGS_H

#include <util/config/Complaint.h>
#include <util/config/Value.h>

#include <string>
#include <vector>

namespace kesa::commadapter {

/// What is wrong with the "comm" member of a configuration document, with paths that begin with "comm"; empty when it
/// is absent or good. The backend itself traces the same and goes on with defaults.
KESA_API std::vector<util::config::Complaint> checkCommSettings(const util::config::Value& comm);

/// The keys of that member that are known, those that are refused as not supported yet among them.
KESA_API std::vector<std::string> commSettingKeys();

} // namespace kesa::commadapter

#endif
