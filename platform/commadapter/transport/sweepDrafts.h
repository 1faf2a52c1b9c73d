#ifndef KESA_COMMADAPTER_TRANSPORT_SWEEPDRAFTS_H
#define KESA_COMMADAPTER_TRANSPORT_SWEEPDRAFTS_H

#include <sys/stat.h>

namespace kesa::commadapter::transport {

/// Removes sockets and realm files that killed processes left in a run directory before these had got their names
/// (`.NAME.PID.NUMBER.tmp`). `present`: a file just made there, by whose time the age of others is told.
void sweepDrafts(int directory, const struct stat& present);

} // namespace kesa::commadapter::transport

#endif
