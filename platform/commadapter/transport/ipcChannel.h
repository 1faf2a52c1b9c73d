#ifndef KESA_COMMADAPTER_TRANSPORT_IPCCHANNEL_H
#define KESA_COMMADAPTER_TRANSPORT_IPCCHANNEL_H

#include <tracing/Channel.h>

namespace kesa::commadapter::transport {

/// The traces of the transport over Unix sockets.
inline const ::tracing::Channel IPC_CHANNEL("KESA_COMM_IPC");

} // namespace kesa::commadapter::transport

#endif
