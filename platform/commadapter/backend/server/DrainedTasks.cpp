#include "backend/server/DrainedTasks.h"

#include "backend/server/ServerConnection.h"

#include <utility>

namespace kesa::commadapter {

void DrainedTasks::add(std::function<void()> task)
{
    const auto lock = m_connection.lock();
    if (m_connection.isOpen()) {
        m_tasks.push_back(std::move(task));
        look();
    }
}

void DrainedTasks::end()
{
    std::deque<std::function<void()>> dropped; // without the lock
    const auto lock = m_connection.lock();
    std::swap(dropped, m_tasks);
}

/// With the lock held, as the next one.
bool DrainedTasks::hasAllLeft() const
{
    const auto& output = m_connection.output();
    return output.queuedBytes() == 0 && output.waitingBytes() == 0;
}

void DrainedTasks::post()
{
    if (hasAllLeft() && !std::exchange(m_isPosted, true)) {
        m_connection.loop().post([self = m_connection.share(*this)] { self->runNext(); });
    }
}

/// Runs one task. What it writes has to leave before the next one's turn.
void DrainedTasks::runNext()
{
    auto lock = m_connection.lock();
    m_isPosted = false;
    if (!m_connection.isOpen() || m_tasks.empty() || !hasAllLeft()) {
        return;
    }
    auto task = std::move(m_tasks.front());
    m_tasks.pop_front();
    lock.unlock();
    task();
    task = nullptr;
    lock.lock();
    if (m_connection.isOpen()) {
        look();
    }
}

} // namespace kesa::commadapter
