#ifndef BENCH_REGISTRY_ROADS_H
#define BENCH_REGISTRY_ROADS_H

#include "Measured.h"

#include <cstdint>

namespace bench {

// The roads through the registry, between processes that are forked for it: call each in a process of its own. All
// times are of one clock.

/// From `registerService` to the event log's line that it is a success, with so many on their way at a time.
Measured confirmedRegistrations(double seconds, int inFlight);
/// From `registerService` of the registry's bare client to its `onNext`.
Measured bareRegistrations(double seconds);

/// What another process does with a service: its query, or its tracking of the path, tells it; or a connected client
/// has answered once.
enum class Watch { eQUERY, ePATH, eANSWERED };
/// From `registerService` to there.
Measured registrationsElsewhere(double seconds, Watch watch);
/// The same for providers that the watcher has no connection with: the median of so many.
double firstContact(int samples);

/// From SIGKILL to `eREMOVED` in another process: the median of so many.
double deathElsewhere(int samples);
/// From SIGKILL to what `deathHeardThroughAnother` says, of a process that has a runtime, too.
double rawDeath(int samples);

} // namespace bench

#endif
