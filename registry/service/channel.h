#ifndef KESA_REGISTRY_SERVICE_CHANNEL_H
#define KESA_REGISTRY_SERVICE_CHANNEL_H

#include <tracing/Channel.h>

namespace kesa::registry {

inline const ::tracing::Channel CHANNEL{"KESA_REGISTRY"};

} // namespace kesa::registry

#endif
