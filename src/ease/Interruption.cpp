#include "Interruption.h"

#include <atomic>
#include <csignal>

namespace kesa::detail {

/// Two stores and two uncontended locks for a wait, so a list that is a part of what waits.
struct Interruption::Waits {
    std::mutex mutex; ///< of `first`; taken before that of a wait
    Wait* first = nullptr;
    std::atomic<int> signal{0}; ///< written under `mutex`
};

Interruption::Waits& Interruption::waits()
{
    static Waits& instance = *new Waits;
    return instance;
}

void Interruption::begin(int signal)
{
    Waits& all = waits();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.signal = signal;
    for (Wait* wait = all.first; wait != nullptr; wait = wait->m_next) {
        const std::lock_guard<std::mutex> waiting(wait->m_mutex);
        wait->m_signal = signal;
        wait->m_condition.notifyAll();
    }
}

void Interruption::end()
{
    Waits& all = waits();
    const std::lock_guard<std::mutex> lock(all.mutex);
    all.signal = 0;
}

int Interruption::current() noexcept
{
    // A call that misses it finds it under the lock when it begins to wait.
    return waits().signal.load(std::memory_order_relaxed);
}

std::string Interruption::text(int signal)
{
    return signal == SIGINT ? "interrupted by SIGINT" : "interrupted by SIGTERM";
}

Interruption::Wait::Wait(comm::Condition& condition, std::mutex& mutex) : m_condition(condition), m_mutex(mutex)
{
    Waits& all = waits();
    const std::lock_guard<std::mutex> lock(all.mutex);
    m_signal = all.signal;
    m_next = all.first;
    if (m_next != nullptr) {
        m_next->m_before = this;
    }
    all.first = this;
}

Interruption::Wait::~Wait()
{
    Waits& all = waits();
    const std::lock_guard<std::mutex> lock(all.mutex);
    (m_before == nullptr ? all.first : m_before->m_next) = m_next;
    if (m_next != nullptr) {
        m_next->m_before = m_before;
    }
}

} // namespace kesa::detail
