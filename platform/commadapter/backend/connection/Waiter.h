#ifndef KESA_COMMADAPTER_BACKEND_CONNECTION_WAITER_H
#define KESA_COMMADAPTER_BACKEND_CONNECTION_WAITER_H

#include "backend/connection/channel.h"

#include <comm/Condition.h>

#include <mutex>
#include <string>

namespace kesa::commadapter {

/// Waits for the loop. Longer than a second: somebody blocks the loop, which is traced with `what`.
template <class Predicate>
void waitTracing(comm::Condition& condition, std::unique_lock<std::mutex>& lock, const Predicate& predicate,
                 const std::string& what)
{
    if (!comm::waitFor(condition, lock, predicate, comm::now() + comm::SECOND)) {
        KESA_TRACE(CHANNEL, 3, "[wait] '%s' waits for over 1 s: a callback blocks the I/O loop", what.c_str());
        comm::waitFor(condition, lock, predicate);
    }
}

/// One thread that waits for one thing to be done on the loop.
struct Waiter {
    std::mutex lock;
    comm::Condition condition;
    bool isDone = false;
};

} // namespace kesa::commadapter

#endif
