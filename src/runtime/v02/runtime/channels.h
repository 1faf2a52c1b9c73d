#ifndef KESA_RUNTIME_V02_CHANNELS_H
#define KESA_RUNTIME_V02_CHANNELS_H

#include <tracing/Channel.h>

/// Where the runtime's free-text traces go.
namespace kesa::runtime::v02 {

inline const ::tracing::Channel MAIN_CHANNEL{"KESA_RUNTIME_MAIN"};
inline const ::tracing::Channel BACKENDS_CHANNEL{"KESA_RUNTIME_BACKENDS"};

} // namespace kesa::runtime::v02

#endif
