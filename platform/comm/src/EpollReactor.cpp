// One turn of the loop: wait, call what is ready, run due timers, run what was posted, run what was left for the end of
// the turn. The loop stands on the path of every call between processes: `EpollSet` keeps a wake-up cheap.
#include "EpollReactor.h"

#include "CallbackTimer.h"
#include "EpollSet.h"
#include "LoopThread.h"
#include "TimerQueue.h"
#include "leakInChild.h"
#include "monotonicClock.h"
#include "recycle.h"

#include <comm/OncePer.h>
#include <obr/GlobalErrorHandler.h>
#include <tracing/Channel.h>

#include <fmt/format.h>

#include <atomic>
#include <mutex>
#include <span>
#include <unordered_map>
#include <utility>
#include <vector>

namespace comm {

namespace {

const tracing::Channel& channel()
{
    static const tracing::Channel& instance = *new tracing::Channel("KESA_COMM");
    return instance;
}

class EpollReactor final : public Reactor {
public:
    explicit EpollReactor(const std::string& name) : m_thread(name, this), m_set(name) {}

    void post(Task task) override;
    Id startTimer(TimeNs when, Task task) override;
    void cancelTimer(Id id) override;
    Id watch(int descriptor, unsigned interest, ReadyFunction ready) override;
    void changeInterest(Id id, unsigned interest) override;
    void unwatch(Id id) override;
    bool isLastReady() const noexcept override { return m_isLastReady; }
    void atTurnEnd(Task task) override;
    TimeNs lap() override;
    TimeNs heldFor() const noexcept override { return m_callbackTimer.heldFor(); }
    void stop() override;
    bool isCurrent() const noexcept override { return m_thread.isCurrent(); }

    static void start(const std::shared_ptr<EpollReactor>& self);
    /// Called when the last owner but the thread lets go.
    static void release(std::shared_ptr<EpollReactor>&& self);

private:
    struct Watch {
        int descriptor;
        unsigned interest;
        bool isWatched;
        ReadyFunction ready;
    };
    /// What else a wait may end for.
    struct Woken {
        bool byPost = false;
        bool byTimer = false;
    };

    void run();
    bool turn();
    bool isAnythingPosted();
    Woken dispatch(std::span<const epoll_event> events);
    void runDueTimers();
    bool runPosted();
    void runTurnEnd();
    void runBatch();
    void dropAll();
    template <class F>
    void call(F&& callback);
    void traceHeld(TimeNs held);
    void requestStop();
    [[nodiscard]] bool isOnLoop(const char* function) const;

    LoopThread m_thread;
    EpollSet m_set;

    std::mutex m_mutex;
    std::vector<Task> m_posted; ///< under `m_mutex`
    bool m_isStopping = false;  ///< under `m_mutex`
    /// Becomes true under `m_mutex` when nothing is posted; a producer that finds it true has to wake the loop.
    std::atomic<bool> m_isAsleep{false};
    std::atomic<bool> m_hasEnded{false};

    // The loop's own.
    bool m_hasPostedHere = false; ///< since tasks were taken out
    bool m_isLastReady = false;
    Id m_lastId = 0;
    std::unordered_map<Id, std::unique_ptr<Watch>> m_watches;
    std::vector<std::unique_ptr<Watch>> m_unwatched; ///< until this turn's events, which point to them, are through
    TimerQueue m_timers;
    std::vector<Task> m_turnEnd;
    std::vector<Task> m_batch; ///< what `runBatch` runs; empty between
    CallbackTimer m_callbackTimer;
    OncePer m_heldTraces{SECOND};
};

void EpollReactor::start(const std::shared_ptr<EpollReactor>& self)
{
    self->m_thread.start([self] { self->run(); });
}

void EpollReactor::release(std::shared_ptr<EpollReactor>&& self)
{
    if (!self->m_thread.isHere()) {
        leakInChild(std::move(self));
        return;
    }
    // Inside its own callback, when the assertion's handler returned, the thread ends alone.
    const bool mayJoin = self->m_thread.mayStop(__func__);
    self->requestStop();
    mayJoin ? self->m_thread.join() : self->m_thread.detach();
}

void EpollReactor::post(Task task)
{
    if (!m_thread.isUsable(__func__)) {
        return;
    }
    bool mustWake = false;
    {
        const std::lock_guard lock(m_mutex);
        if (!m_isStopping) {
            m_posted.push_back(std::move(task));
            mustWake = m_isAsleep.exchange(false, std::memory_order_relaxed);
        }
    }
    if (mustWake) {
        m_set.wake();
    }
    if (m_thread.isCurrent()) {
        m_hasPostedHere = true;
    }
    // A task that came too late is destroyed here: its destructor may run anything, so not under the lock.
}

Reactor::Id EpollReactor::startTimer(TimeNs when, Task task)
{
    if (!isOnLoop(__func__)) {
        return 0;
    }
    const Id id = ++m_lastId;
    m_timers.start(id, when, std::move(task));
    return id;
}

void EpollReactor::cancelTimer(Id id)
{
    if (!isOnLoop(__func__)) {
        return;
    }
    m_timers.cancel(id);
}

Reactor::Id EpollReactor::watch(int descriptor, unsigned interest, ReadyFunction ready)
{
    if (!isOnLoop(__func__)) {
        return 0;
    }
    auto entry = std::make_unique<Watch>(Watch{descriptor, interest, true, std::move(ready)});
    if (m_set.add(descriptor, interest, entry.get())) {
        return 0;
    }
    const Id id = ++m_lastId;
    m_watches.emplace(id, std::move(entry));
    return id;
}

void EpollReactor::changeInterest(Id id, unsigned interest)
{
    if (!isOnLoop(__func__)) {
        return;
    }
    const auto found = m_watches.find(id);
    if (found == m_watches.end() || found->second->interest == interest) {
        return;
    }
    found->second->interest = interest;
    static_cast<void>(m_set.change(found->second->descriptor, interest, found->second.get()));
}

void EpollReactor::unwatch(Id id)
{
    if (!isOnLoop(__func__)) {
        return;
    }
    const auto found = m_watches.find(id);
    if (found == m_watches.end()) {
        return;
    }
    found->second->isWatched = false;
    static_cast<void>(m_set.remove(found->second->descriptor));
    m_unwatched.push_back(std::move(found->second));
    m_watches.erase(found);
}

void EpollReactor::atTurnEnd(Task task)
{
    if (!isOnLoop(__func__)) {
        return;
    }
    m_turnEnd.push_back(std::move(task));
}

void EpollReactor::stop()
{
    if (m_thread.mayStop(__func__)) {
        requestStop();
        m_thread.join();
    }
}

void EpollReactor::requestStop()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
    }
    m_set.wake();
}

void EpollReactor::run()
{
    m_callbackTimer.start();
    m_callbackTimer.refresh();
    while (!turn()) {
    }
    dropAll();
    m_hasEnded.store(true, std::memory_order_release);
}

/// True when it was the last one.
bool EpollReactor::turn()
{
    m_set.setTimer(m_timers.next());
    const bool hasWork = isAnythingPosted();
    const auto events = m_set.wait(!hasWork && m_turnEnd.empty());
    m_isAsleep.store(false, std::memory_order_relaxed); // late is a needless wake; what was posted the lock shows
    m_callbackTimer.start();

    const Woken woken = dispatch(events);
    if (woken.byTimer) {
        m_set.timerCame();
        runDueTimers();
    }
    // What the turn itself has posted so far need not wait for the next one.
    const bool isLast = (std::exchange(m_hasPostedHere, false) || hasWork || woken.byPost) && runPosted();
    if (!m_turnEnd.empty()) {
        runTurnEnd();
    }
    while (!m_unwatched.empty()) {
        std::exchange(m_unwatched, {}).clear();
    }
    m_callbackTimer.setIdle();
    m_callbackTimer.refresh();
    return isLast;
}

/// False: whoever posts from now on wakes the loop.
bool EpollReactor::isAnythingPosted()
{
    const std::lock_guard lock(m_mutex);
    const bool isAnything = !m_posted.empty() || m_isStopping;
    if (!isAnything) {
        m_isAsleep.store(true, std::memory_order_relaxed);
    }
    return isAnything;
}

EpollReactor::Woken EpollReactor::dispatch(std::span<const epoll_event> events)
{
    Woken woken;
    for (const epoll_event& event : events) {
        if (EpollSet::isWake(event)) {
            woken.byPost = true;
        } else if (m_set.isTimer(event)) {
            woken.byTimer = true;
        } else if (auto* const watch = static_cast<Watch*>(event.data.ptr); watch->isWatched) {
            m_isLastReady = &event == &events.back();
            call([watch, readiness = EpollSet::readiness(event)] { watch->ready(readiness); });
        }
    }
    m_isLastReady = false;
    return woken;
}

void EpollReactor::runDueTimers()
{
    const TimeNs time = monotonicNow();
    const Id newest = m_lastId; // what a callback starts waits for the next turn
    while (Task task = m_timers.takeDue(time, newest)) {
        call([&task] {
            task();
            task = nullptr;
        });
    }
}

/// True when no more can come.
bool EpollReactor::runPosted()
{
    bool isLast = false;
    {
        const std::lock_guard lock(m_mutex);
        m_batch.swap(m_posted);
        isLast = m_isStopping;
    }
    runBatch();
    return isLast;
}

void EpollReactor::runTurnEnd()
{
    m_batch.swap(m_turnEnd);
    runBatch();
}

void EpollReactor::runBatch()
{
    for (Task& task : m_batch) {
        call([&task] {
            task();
            task = nullptr;
        });
    }
    recycle(m_batch);
}

/// Destructors of what is dropped may cancel, post and start anew.
void EpollReactor::dropAll()
{
    while (!m_watches.empty() || !m_unwatched.empty() || !m_timers.isEmpty() || !m_turnEnd.empty()) {
        std::exchange(m_watches, {}).clear();
        std::exchange(m_unwatched, {}).clear();
        m_timers.clear();
        std::exchange(m_turnEnd, {}).clear();
    }
}

/// Without what the thread has waited for a processor, which is looked at only when it matters.
template <class F>
void EpollReactor::call(F&& callback)
{
    m_callbackTimer.setHeld();
    callback();
    if (const TimeNs held = m_callbackTimer.end(); held != 0) {
        traceHeld(held);
    }
}

void EpollReactor::traceHeld(TimeNs held)
{
    if (const auto end = m_heldTraces.pass(readClock(CLOCK_MONOTONIC_COARSE))) {
        KESA_TRACE_TEXT(channel(), 3,
                        fmt::format("[reactor] a callback held the loop '{}' for {} ms, in which {}{}",
                                    m_thread.loopName(), held / MILLISECOND,
                                    m_watches.empty() ? "nothing else ran on it" : "nothing was sent or received",
                                    *end));
    }
}

TimeNs EpollReactor::lap()
{
    if (!isOnLoop(__func__)) {
        return 0;
    }
    return m_callbackTimer.lap();
}

/// False where the loop's own things may not be touched: after its end, and, after a failed assertion, outside of it.
bool EpollReactor::isOnLoop(const char* function) const
{
    if (m_thread.isCurrent()) {
        return true;
    }
    if (!m_hasEnded.load(std::memory_order_acquire)) {
        const std::string message = fmt::format("called outside of the loop '{}'", m_thread.loopName());
        obr::GlobalErrorHandler::doAssert(false, "isCurrent()", __FILE__, __LINE__, function, message.c_str());
    }
    return false;
}

} // namespace

std::shared_ptr<Reactor> makeEpollReactor(const std::string& name)
{
    auto reactor = std::make_shared<EpollReactor>(name);
    EpollReactor::start(reactor);
    Reactor* const object = reactor.get();
    return {object, [owned = std::move(reactor)](Reactor*) mutable { EpollReactor::release(std::move(owned)); }};
}

} // namespace comm
