#ifndef KESA_TRACING_H
#define KESA_TRACING_H

#include <obr/api.h>
#include <tracing/Channel.h>

#include <string>

namespace kesa {

// Inside this namespace `tracing::Channel` would find the namespace below.
using ::tracing::Channel;

namespace tracing {

/// Names this process in the traces of others; constant for the life of the process.
KESA_API const std::string& getTraceClientId();

} // namespace tracing
} // namespace kesa

#endif
