#ifndef TRACING_OPENSINK_H
#define TRACING_OPENSINK_H

#include <tracing/Sink.h>

namespace tracing {

/// As `makeSink`, with the reason in `reason`: what the environment names must not touch the caller's pending error.
std::shared_ptr<ISink> openSink(const std::string& description, std::string& reason);

} // namespace tracing

#endif
