#ifndef KESA_COMMADAPTER_TRANSPORT_EXPLAINERROR_H
#define KESA_COMMADAPTER_TRANSPORT_EXPLAINERROR_H

#include <string>

namespace kesa::commadapter::transport {

/// The system's text of an `errno`; where something has been used up, also what, and how to have more:
/// "Too many open files; this process has used up its descriptors: let it have more than 1024 (ulimit -n, ...".
std::string explainError(int error);

/// Its second part alone; empty for other errors.
std::string adviseOnShortage(int error);

} // namespace kesa::commadapter::transport

#endif
