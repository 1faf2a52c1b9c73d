#ifndef BENCH_FLOORS_H
#define BENCH_FLOORS_H

#include "Measured.h"

namespace bench {

// What two processes can do at best over a Unix stream socket, without Kesa. Each function forks its own server, checks
// the answers byte by byte, then measures for `seconds`. Messages have 64 bytes where nothing else is said.

/// (1) Both sides block in `read`.
Measured blockingPingPong(double seconds);
/// (2) The client has an I/O thread: the caller writes itself and is woken by a condition variable.
Measured handedOverCall(double seconds);
/// (2c) One loop on each side: the caller itself writes, waits in epoll and reads.
Measured callOnOneLoop(double seconds);
/// (3) 64 requests outstanding, one write per message on both sides.
Measured outstandingCalls(double seconds);
/// (3b) The same; what one batch read gives rise to leaves in one write, on both sides.
Measured outstandingCallsCoalesced(double seconds);
/// (3m) Ping-pong of messages of 1 MiB.
Measured largeMessages(double seconds);
/// Connects, then two round trips; the time until the second answer.
Measured connectAndTwoRoundTrips(double seconds);
/// The server pushes, one write per message; the times are the messages' ages when read.
Measured pushedStream(double seconds);

/// One message through a second process to a third; the time until that has it.
Measured relayOverTwoHops(double seconds);
/// Kills a process that runs `live`, which says when it can be killed; the time until a third one has heard of the end
/// of its socket from a second.
std::int64_t deathHeardThroughAnother(const ChildProcess::Body& live);

} // namespace bench

#endif
