#include <comm/LoopHold.h>

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

namespace comm {

namespace {

/// Each thread of this process passes a full barrier before it returns. False where the kernel does not know it.
bool passBarrierInAllThreads() noexcept
{
    static const bool isThere = ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
    return isThere && ::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0;
}

} // namespace

LoopHold::LoopHold(std::string loop, std::function<TimeNs()> heldFor)
    : m_loop(std::move(loop)), m_heldFor(std::move(heldFor))
{}

std::string LoopHold::holder() const
{
    std::string name;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isRead.store(true, std::memory_order_seq_cst);
        if (passBarrierInAllThreads()) {
            if (const Entry* const entry = m_current.load(std::memory_order_acquire)) {
                name = entry->name(entry->describe);
            }
        }
        m_isRead.store(false, std::memory_order_release);
    }
    return name.empty() ? "a handler" : name;
}

/// Whoever begins a call after the barrier sees that it is waited for; what began before is seen here.
bool LoopHold::isCalling(std::function<void()> wake) const
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_wake.swap(wake);
        m_isQuiet.store(m_wake != nullptr, std::memory_order_seq_cst);
    }
    return !passBarrierInAllThreads() || m_current.load(std::memory_order_acquire) != nullptr;
}

void LoopHold::wake()
{
    std::function<void()> wake;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        wake.swap(m_wake);
        m_isQuiet.store(false, std::memory_order_relaxed);
    }
    if (wake) {
        wake();
    }
}

void LoopHold::waitForReader() noexcept
{
    const std::lock_guard<std::mutex> lock(m_mutex);
}

} // namespace comm
