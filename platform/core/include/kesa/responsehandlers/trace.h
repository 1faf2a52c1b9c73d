#ifndef KESA_RESPONSEHANDLERS_TRACE_H
#define KESA_RESPONSEHANDLERS_TRACE_H

#include <obr/api.h>

/// Diagnostics of the response handlers, on the channel "KESA_RESPONSEHANDLERS".
namespace kesa::responsehandlers {

/// `operation`, "onError" or "onCompleted", has ended a stream.
KESA_API void traceSetTerminated(const char* operation);
/// `operation` was called on a stream that had ended. `isOnNext`: a value is lost.
KESA_API void traceAlreadyTerminated(const char* operation, bool isOnNext);

} // namespace kesa::responsehandlers

#endif
