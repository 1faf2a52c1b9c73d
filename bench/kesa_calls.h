#ifndef BENCH_KESA_CALLS_H
#define BENCH_KESA_CALLS_H

#include "Measured.h"

namespace bench {

// What Kesa needs for what the floors do by hand: a provider and a caller with a runtime each, over `ipc`, through the
// public interface. Each function forks the provider and then starts the caller's runtime: call it in a process of its
// own. Bodies have 64 bytes where nothing else is said; each answer is checked byte by byte.

/// A caller that is blocked in `kesa::get`.
Measured blockedCalls(double seconds);
/// Each request is issued inside the handler of the answer before it.
Measured callsInHandler(double seconds);
/// The same with 64 requests outstanding.
Measured outstandingRequests(double seconds);
/// A persistent stream, pushed by a thread of the service's own; the times are the values' ages when they arrive.
Measured streamFromThread(double seconds);
/// The same, pushed on the service's I/O loop.
Measured streamFromLoop(double seconds);
/// `kesa::get` with bodies of 1 MiB both ways.
Measured largeCalls(double seconds);
/// Resolves, waits for the connection and for one answer, and lets go of the connection again, which is not timed.
Measured resolvesToFirstAnswer(double seconds);

/// `operator new` per call of a caller blocked in `kesa::get`, on each side. The request's body is the caller's own.
struct Allocations {
    double caller = 0;
    double provider = 0;
};
Allocations allocationsPerCall();

} // namespace bench

#endif
