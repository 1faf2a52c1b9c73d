#ifndef COMM_THREADSCHEDULER_H
#define COMM_THREADSCHEDULER_H

#include <comm/Scheduler.h>

namespace comm {

/// The real scheduler: threads, the kernel's monotonic clock, condition variables. Never destroyed.
Scheduler& threadScheduler();

} // namespace comm

#endif
