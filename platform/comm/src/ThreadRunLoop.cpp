// Producers append to a list under a short lock; the loop takes the whole list and runs it with no lock held. So a busy
// loop costs one lock per batch, and a producer wakes it only when the list was empty.
#include "ThreadRunLoop.h"

#include "CallbackTimer.h"
#include "LoopThread.h"
#include "LoopWait.h"
#include "leakInChild.h"
#include "recycle.h"

#include <tracing/Channel.h>

#include <fmt/format.h>

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace comm {

struct ThreadRunLoop::Shared {
    explicit Shared(const std::string& name) : thread(name) {}

    void run();
    void runWatched(std::vector<util::SharedPtr<ActiveObjectEvent>>& batch);
    void tellHeld(TimeNs held);
    void requestStop();
    void join();
    /// Fills `batch` with what is queued; waits for it. False when there is nothing left to come.
    bool take(std::vector<util::SharedPtr<ActiveObjectEvent>>& batch);

    LoopThread thread;
    std::mutex mutex;
    std::condition_variable filled;
    std::vector<util::SharedPtr<ActiveObjectEvent>> queue; ///< under `mutex`
    bool isStopping = false;                               ///< under `mutex`

    // Of a loop that is watched.
    util::UniqueFunction<void(TimeNs)> tell; ///< set before the first event, then the loop's own
    CallbackTimer timer;                     ///< the loop's own
};

void ThreadRunLoop::Shared::run()
{
    std::vector<util::SharedPtr<ActiveObjectEvent>> batch;
    while (take(batch)) {
        if (tell) {
            runWatched(batch);
            continue;
        }
        for (auto& event : batch) {
            event->execute();
            event.reset();
        }
    }
}

void ThreadRunLoop::Shared::runWatched(std::vector<util::SharedPtr<ActiveObjectEvent>>& batch)
{
    timer.start();
    timer.refresh();
    LoopWait::take();
    for (auto& event : batch) {
        timer.setHeld();
        event->execute();
        event.reset();
        if (const TimeNs held = timer.end(); held != 0) {
            tellHeld(held);
        }
    }
    timer.setIdle();
}

/// What an event waits for another loop outside of laps is no handler's doing: on a machine that has too much to do
/// that loop may not be let run.
void ThreadRunLoop::Shared::tellHeld(TimeNs held)
{
    if (const TimeNs worked = held - LoopWait::take(); worked > Reactor::LONG_CALLBACK) {
        tell(worked);
    }
}

bool ThreadRunLoop::Shared::take(std::vector<util::SharedPtr<ActiveObjectEvent>>& batch)
{
    recycle(batch); // it changes places with the queue
    std::unique_lock lock(mutex);
    filled.wait(lock, [this] { return !queue.empty() || isStopping; });
    batch.swap(queue);
    return !batch.empty();
}

void ThreadRunLoop::Shared::requestStop()
{
    {
        const std::lock_guard lock(mutex);
        isStopping = true;
    }
    filled.notify_one();
}

/// Of a loop that is watched others say what holds it.
void ThreadRunLoop::Shared::join()
{
    thread.join([this] {
        if (!tell) {
            static const tracing::Channel channel("KESA_COMM");
            KESA_TRACE_TEXT(channel, 3,
                            fmt::format("[stop] who stops or destroys the loop '{}' has waited for 1 s until what runs "
                                        "on it returns, in the thread '{}', and goes on waiting; what was enqueued "
                                        "before runs first",
                                        thread.loopName(), threadName(thread.loopName())));
        }
    });
}

ThreadRunLoop::ThreadRunLoop(const std::string& name) : m_shared(std::make_shared<Shared>(name))
{
    m_shared->thread.start([shared = m_shared] { shared->run(); });
}

ThreadRunLoop::~ThreadRunLoop()
{
    if (!m_shared->thread.isHere()) {
        leakInChild(std::move(m_shared));
        return;
    }
    // Inside its own event, when the assertion's handler returned, the thread goes on alone to the end of the queue.
    const bool mayJoin = m_shared->thread.mayStop(__func__);
    m_shared->requestStop();
    mayJoin ? m_shared->join() : m_shared->thread.detach();
}

void ThreadRunLoop::enque(util::SharedPtr<ActiveObjectEvent> event)
{
    if (!m_shared->thread.isUsable(__func__)) {
        return;
    }
    bool wasEmpty = false;
    {
        const std::lock_guard lock(m_shared->mutex);
        if (!m_shared->isStopping) {
            wasEmpty = m_shared->queue.empty();
            m_shared->queue.push_back(std::move(event));
        }
    }
    if (wasEmpty) {
        m_shared->filled.notify_one();
    }
    // An event that came too late is destroyed here: its destructor may run anything, so not under the lock.
}

void ThreadRunLoop::stop()
{
    if (m_shared->thread.mayStop(__func__)) {
        m_shared->requestStop();
        m_shared->join();
    }
}

void ThreadRunLoop::watch(util::UniqueFunction<void(TimeNs)> tell)
{
    m_shared->tell = std::move(tell);
}

TimeNs ThreadRunLoop::lap()
{
    const TimeNs held = m_shared->timer.lap();
    if (held != 0) {
        LoopWait::take();
    }
    return held;
}

TimeNs ThreadRunLoop::heldFor() const noexcept
{
    return m_shared->timer.heldFor();
}

bool ThreadRunLoop::isCurrent() const noexcept
{
    return m_shared->thread.isCurrent();
}

} // namespace comm
