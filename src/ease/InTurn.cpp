#include <kesa/ease/InTurn.h>

#include <comm/Clock.h>
#include <tracing/Channel.h>

#include <exception>
#include <utility>

namespace kesa::detail {

namespace {

constexpr comm::TimeNs LONG_WAIT = comm::SECOND;

const ::tracing::Channel& channel()
{
    static const ::tracing::Channel instance("KESA_EASE");
    return instance;
}

void traceThrown(const char* what)
{
    KESA_TRACE(channel(), 4,
               "[Property] onChange has thrown, and the value stays: %s; give what may refuse one as 'check'", what);
}

/// What this thread makes calls of, the innermost first.
struct Calling {
    const InTurn* turn;
    const Calling* outer;
};
thread_local const Calling* t_calling = nullptr;

bool isInside(const InTurn* turn)
{
    const Calling* calling = t_calling;
    while (calling != nullptr && calling->turn != turn) {
        calling = calling->outer;
    }
    return calling != nullptr;
}

void make(InTurn::Call call, const InTurn* turn)
{
    const Calling here{turn, t_calling};
    t_calling = &here;
    try {
        call();
    } catch (const std::exception& exception) {
        traceThrown(exception.what());
    } catch (...) {
        traceThrown("an exception that is no std::exception");
    }
    call = nullptr;
    t_calling = here.outer;
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
    if (m_isCalling) {
        return;
    }
    while (!m_left.empty()) {
        Call call = std::move(m_left.front());
        m_left.pop_front();
        m_isCalling = true;
        lock.unlock();
        make(std::move(call), this);
        lock.lock();
        m_isCalling = false;
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
    if (isInside(this)) {
        return;
    }
    const auto isOver = [this] { return !m_isCalling; };
    if (!comm::waitFor(m_changed, lock, isOver, comm::now() + LONG_WAIT)) {
        KESA_TRACE(channel(), 3,
                   "[Property] its end waits for 'onChange', which has not returned yet: nothing of it may run after "
                   "the end");
        comm::waitFor(m_changed, lock, isOver);
    }
}

} // namespace kesa::detail
