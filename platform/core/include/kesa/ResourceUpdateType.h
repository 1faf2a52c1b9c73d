#ifndef KESA_RESOURCEUPDATETYPE_H
#define KESA_RESOURCEUPDATETYPE_H

#include <cstdint>

namespace kesa {

enum class ResourceUpdateType : std::uint8_t { eADDED = 0, eMODIFIED = 1, eREMOVED = 2 };

} // namespace kesa

#endif
