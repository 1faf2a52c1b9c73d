#include <kesa/ease/InTurn.h>

#include <comm/Clock.h>
#include <comm/Condition.h>
#include <comm/Reactor.h>
#include <comm/onAnyLoop.h>
#include <tracing/Channel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>
#include <utility>

namespace kesa::detail {

namespace {

constexpr comm::TimeNs LONG_WAIT = comm::SECOND;
/// So many changes wait before who makes more of them is slowed down, by so much at most: what is called may wait for a
/// lock that he holds.
constexpr std::size_t MANY = 256;
constexpr comm::TimeNs SLOWED = 100 * comm::MILLISECOND;

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
    const void* turn;
    const Calling* outer;
};
thread_local const Calling* t_calling = nullptr;

bool isInside(const void* turn)
{
    const Calling* calling = t_calling;
    while (calling != nullptr && calling->turn != turn) {
        calling = calling->outer;
    }
    return calling != nullptr;
}

void make(InTurn::Call call, const void* turn)
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

class InTurn::Queue : public std::enable_shared_from_this<Queue> {
public:
    void leave(Call call);
    void run();
    void end();

private:
    /// What is left, in a later turn of an I/O loop; when that ends first, where it drops it.
    class Later {
    public:
        explicit Later(std::shared_ptr<Queue> queue) noexcept : m_queue(std::move(queue)) {}
        Later(Later&&) noexcept = default;
        Later& operator=(Later&&) = delete;
        ~Later()
        {
            if (m_queue) {
                m_queue->callAll();
            }
        }
        void operator()() { std::exchange(m_queue, nullptr)->goOn(); }

    private:
        std::shared_ptr<Queue> m_queue;
    };

    using Lock = std::unique_lock<std::mutex>;
    bool mayCall(Lock& lock);
    void callNext(Lock& lock);
    void goOn();
    void callAll();
    bool leaveToOthers(Lock& lock);

    std::mutex m_mutex; ///< of all below
    comm::Condition m_changed;
    std::deque<Call> m_left;
    std::uint64_t m_lastLeft = 0;
    std::uint64_t m_made = 0;
    unsigned m_waiting = 0;   ///< threads that are slowed down
    bool m_isCalling = false; ///< one is under way
    bool m_isPosted = false;  ///< to be gone on with by an I/O loop
    bool m_hasEnded = false;
};

void InTurn::Queue::leave(Call call)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_hasEnded) {
        m_left.push_back(std::move(call));
        ++m_lastLeft;
    }
}

void InTurn::Queue::run()
{
    Lock lock(m_mutex);
    if (!mayCall(lock)) {
        return;
    }
    const std::uint64_t last = std::min(m_lastLeft, m_made + MANY); // of those that are made in any case
    while (!m_left.empty() && !m_isCalling && (m_made < last || !leaveToOthers(lock))) {
        callNext(lock);
    }
}

/// False when another thread makes the calls.
bool InTurn::Queue::mayCall(Lock& lock)
{
    const comm::LoopInfo* const loop = comm::currentLoop();
    const bool mayWait = t_calling == nullptr && (loop == nullptr || !loop->isReactor());
    if (m_isCalling && mayWait && m_left.size() >= MANY) {
        ++m_waiting;
        comm::waitFor(
            m_changed, lock, [this] { return !m_isCalling || m_left.size() < MANY; }, comm::now() + SLOWED);
        --m_waiting;
    }
    return !m_isCalling;
}

void InTurn::Queue::callNext(Lock& lock)
{
    Call call = std::move(m_left.front());
    m_left.pop_front();
    m_isCalling = true;
    lock.unlock();
    make(std::move(call), this);
    lock.lock();
    m_isCalling = false;
    ++m_made;
    if (m_hasEnded || m_waiting > 0) {
        m_changed.notifyAll();
    }
}

/// Of a thread that has made its own calls, or many. What is left then is made by a thread that waits for that, or by
/// the later turns of an I/O loop.
bool InTurn::Queue::leaveToOthers(Lock& lock)
{
    if (m_waiting > 0) {
        return true;
    }
    const comm::LoopInfo* const loop = comm::currentLoop();
    if (loop == nullptr || !loop->isReactor()) {
        return false;
    }
    if (!std::exchange(m_isPosted, true)) {
        lock.unlock();
        loop->reactor->post(Later(shared_from_this()));
        lock.lock();
    }
    return true;
}

void InTurn::Queue::goOn()
{
    Lock lock(m_mutex);
    m_isPosted = false;
    if (m_left.empty() || m_isCalling) {
        return;
    }
    callNext(lock);
    if (!m_left.empty() && !m_isCalling) {
        leaveToOthers(lock);
    }
}

void InTurn::Queue::callAll()
{
    Lock lock(m_mutex);
    m_isPosted = false;
    while (!m_left.empty() && !m_isCalling) {
        callNext(lock);
    }
}

void InTurn::Queue::end()
{
    std::deque<Call> dropped; // dies without the lock
    Lock lock(m_mutex);
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

InTurn::InTurn() : m_queue(std::make_shared<Queue>()) {}

InTurn::~InTurn() = default;

void InTurn::leave(Call call)
{
    m_queue->leave(std::move(call));
}

void InTurn::run()
{
    const auto queue = m_queue; // a call may destroy us
    queue->run();
}

void InTurn::end()
{
    m_queue->end();
}

} // namespace kesa::detail
