#ifndef TRACING_OPENSINK_H
#define TRACING_OPENSINK_H

#include <tracing/Sink.h>

#include <array>
#include <cstddef>
#include <mutex>

namespace tracing {

/// As `makeSink`, with the reason in `reason`: what the environment names must not touch the caller's pending error.
std::shared_ptr<ISink> openSink(const std::string& description, std::string& reason);

/// Held while a line is made and written; the sinks that `openSink` makes take them in turn, so that few have one
/// together. A child of a fork needs all of them free.
constexpr std::size_t OUTPUT_LOCKS = 4;
std::array<std::mutex, OUTPUT_LOCKS>& outputLocks();

} // namespace tracing

#endif
