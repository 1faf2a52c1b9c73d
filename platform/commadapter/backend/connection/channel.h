#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_CHANNEL_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_CHANNEL_H

#include <tracing/Channel.h>

namespace kesa::commadapter {

/// The traces of the backend.
inline const ::tracing::Channel CHANNEL("KESA_COMM");

} // namespace kesa::commadapter

#endif
