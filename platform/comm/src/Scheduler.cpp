#include <comm/Scheduler.h>

#include "LiveLoop.h"
#include "ThreadScheduler.h"

#include <obr/GlobalErrorHandler.h>

#include <atomic>

namespace comm {

namespace {

std::atomic<Scheduler*> installed{nullptr};
std::atomic<int> liveLoops{0}; ///< a number for a complaint; it orders nothing

} // namespace

LiveLoop::LiveLoop() noexcept
{
    liveLoops.fetch_add(1, std::memory_order_relaxed);
}

LiveLoop::~LiveLoop()
{
    liveLoops.fetch_sub(1, std::memory_order_relaxed);
}

int LiveLoop::count() noexcept
{
    return liveLoops.load(std::memory_order_relaxed);
}

Scheduler::~Scheduler() = default;

IConditionImpl::~IConditionImpl() = default;

Reactor::~Reactor() = default;

Scheduler& Scheduler::current() noexcept
{
    Scheduler* const scheduler = installed.load(std::memory_order_acquire);
    return scheduler != nullptr ? *scheduler : threadScheduler();
}

Scheduler* Scheduler::install(Scheduler* scheduler) noexcept
{
    if (LiveLoop::count() != 0) {
        obr::GlobalErrorHandler::doAssert(false, "LiveLoop::count() == 0", __FILE__, __LINE__, __func__,
                                          "the scheduler is replaced while a loop of the old one runs; stop it first");
    }
    return installed.exchange(scheduler, std::memory_order_acq_rel);
}

TimeNs now() noexcept
{
    return Scheduler::current().now();
}

} // namespace comm
