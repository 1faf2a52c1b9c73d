#ifndef KESA_COMMADAPTER_TRANSPORT_WHOMAYLISTEN_H
#define KESA_COMMADAPTER_TRANSPORT_WHOMAYLISTEN_H

#include "transport/ITransport.h"

#include <sys/stat.h>

#include <string>

namespace kesa::commadapter::transport {

/// Why a client does not take who listens at the socket of a process for that process; empty when it does. Who listens
/// has to be who made the socket, or root, which may do so for others: else somebody was handed it, or has taken it.
/// And where each user's files are his own, the name is of the user whose lock file is there, whoever made a socket for
/// it.
std::string complaintAboutListener(const std::string& directory, const std::string& process, const struct stat& socket,
                                   const PeerIdentity& listener);

} // namespace kesa::commadapter::transport

#endif
