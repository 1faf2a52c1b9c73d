#ifndef COMM_ENDTHROWN_H
#define COMM_ENDTHROWN_H

#include <obr/api.h>
#include <tracing/Channel.h>

#include <string>

namespace comm {

/// Ends the process by `std::terminate`, since no loop goes on after an exception. A trace (4) on `channel` says before
/// that `what` has thrown, and the text of the exception. Inside of the `catch` alone.
[[noreturn]] KESA_API void endThrown(const tracing::Channel& channel, const std::string& what);

} // namespace comm

#endif
