#include <kesa/ease/InTurn.h>

#include <tracing/Channel.h>

#include <exception>
#include <utility>

namespace kesa::detail {

namespace {

void traceThrown(const char* what)
{
    static const ::tracing::Channel channel("KESA_EASE");
    KESA_TRACE(channel, 4,
               "[Property] onChange has thrown, and the value stays: %s; give what may refuse one as 'check'", what);
}

void make(InTurn::Call& call)
{
    try {
        call();
    } catch (const std::exception& exception) {
        traceThrown(exception.what());
    } catch (...) {
        traceThrown("an exception that is no std::exception");
    }
}

} // namespace

void InTurn::leave(Call call)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_hasEnded) {
        m_left.push_back(std::move(call));
    }
}

void InTurn::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_caller != std::thread::id()) {
        return;
    }
    while (!m_left.empty()) {
        Call call = std::move(m_left.front());
        m_left.pop_front();
        m_caller = std::this_thread::get_id();
        lock.unlock();
        make(call);
        call = nullptr;
        lock.lock();
        m_caller = {};
    }
    if (m_hasEnded) {
        m_changed.notifyAll();
    }
}

void InTurn::end()
{
    std::deque<Call> dropped; // dies without the lock
    std::unique_lock<std::mutex> lock(m_mutex);
    m_hasEnded = true;
    dropped.swap(m_left);
    if (m_caller != std::this_thread::get_id()) {
        comm::waitFor(m_changed, lock, [this] { return m_caller == std::thread::id(); });
    }
}

} // namespace kesa::detail
