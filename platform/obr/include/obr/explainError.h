#ifndef OBR_EXPLAINERROR_H
#define OBR_EXPLAINERROR_H

#include <obr/api.h>

#include <string>

namespace obr {

/// The system's text of an `errno`; where something has been used up, also what, and how to have more:
/// "Too many open files; this process has used up its descriptors: let it have more than 1024 (ulimit -n, ...".
KESA_API std::string explainError(int error);

/// Its second part alone; empty for other errors.
KESA_API std::string adviseOnShortage(int error);

} // namespace obr

#endif
