#ifndef TRACING_OPENSINK_H
#define TRACING_OPENSINK_H

#include <tracing/Sink.h>

#include <mutex>

namespace tracing {

/// As `makeSink`, with the reason in `reason`: what the environment names must not touch the caller's pending error.
std::shared_ptr<ISink> openSink(const std::string& description, std::string& reason);

/// Held while a line is made and written, one for all sinks that `openSink` makes: a child of a fork needs it free.
std::mutex& outputLock();

} // namespace tracing

#endif
