// One turn of the loop: wait, call what is ready, run due timers, run what was posted, run what was left for the end of
// the turn. The loop stands on the path of every call between processes, so a wake-up costs one `epoll_wait` and no
// other system call: a descriptor is registered once, level-triggered, and stays armed; the wake-up descriptor is
// edge-triggered and never read. So is the timer descriptor, which is set when a timer comes before the time it is set
// to: a wait with a time limit would set up and take back a timer of the kernel's each time.
#include "EpollReactor.h"

#include "CallbackTimer.h"
#include "LoopThread.h"
#include "TimerQueue.h"
#include "leakInChild.h"
#include "monotonicClock.h"
#include "recycle.h"

#include <comm/AtFork.h>
#include <comm/OncePerSecond.h>
#include <obr/ErrorOutput.h>
#include <obr/GlobalErrorHandler.h>
#include <obr/errors.h>
#include <obr/explainError.h>
#include <tracing/Channel.h>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <system_error>
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

std::uint32_t toEpoll(unsigned interest) noexcept
{
    return ((interest & Reactor::eREADABLE) != 0U ? EPOLLIN : 0U) |
           ((interest & Reactor::eWRITABLE) != 0U ? EPOLLOUT : 0U);
}

unsigned toReadiness(std::uint32_t events) noexcept
{
    return ((events & EPOLLIN) != 0U ? Reactor::eREADABLE : 0U) |
           ((events & EPOLLOUT) != 0U ? Reactor::eWRITABLE : 0U) |
           ((events & (EPOLLHUP | EPOLLERR)) != 0U ? Reactor::eHANGUP : 0U);
}

class EpollReactor final : public Reactor {
public:
    explicit EpollReactor(const std::string& name);
    ~EpollReactor() override;

    void post(Task task) override;
    Id startTimer(TimeNs when, Task task) override;
    void cancelTimer(Id id) override;
    Id watch(int descriptor, unsigned interest, ReadyFunction ready) override;
    void changeInterest(Id id, unsigned interest) override;
    void unwatch(Id id) override;
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
        std::uint32_t interest;
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
    void setTimer();
    Woken dispatch(const epoll_event* events, int count);
    void runDueTimers();
    bool runPosted();
    void runTurnEnd();
    void runBatch();
    void dropAll();
    template <class F>
    void call(F&& callback);
    void traceHeld(TimeNs held);
    void requestStop();
    void wake() const noexcept;
    [[nodiscard]] bool isOnLoop(const char* function) const;
    [[nodiscard]] bool control(int operation, Watch& watch) const;

    LoopThread m_thread;
    int m_epoll = -1;
    int m_wake = -1;
    int m_timer = -1;

    std::mutex m_mutex;
    std::vector<Task> m_posted; ///< under `m_mutex`
    bool m_isStopping = false;  ///< under `m_mutex`
    /// Becomes true under `m_mutex` when nothing is posted; a producer that finds it true has to wake the loop.
    std::atomic<bool> m_isAsleep{false};
    std::atomic<bool> m_hasEnded{false};

    // The loop's own.
    Id m_lastId = 0;
    std::unordered_map<Id, std::unique_ptr<Watch>> m_watches;
    std::vector<std::unique_ptr<Watch>> m_unwatched; ///< until this turn's events, which point to them, are through
    TimerQueue m_timers;
    TimeNs m_timerSetTo = NEVER; ///< not later than the first of the timers, while the loop waits
    std::vector<Task> m_turnEnd;
    std::vector<Task> m_batch; ///< what `runBatch` runs; empty between
    CallbackTimer m_callbackTimer;
    OncePerSecond m_heldTraces;
};

EpollReactor::EpollReactor(const std::string& name)
    : m_thread(name, this), m_epoll(AtFork::open([] { return ::epoll_create1(EPOLL_CLOEXEC); })),
      m_wake(AtFork::open([] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); })),
      m_timer(AtFork::open([] { return ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK); }))
{
    const auto add = [this](int descriptor) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.ptr = descriptor == m_timer ? &m_timer : nullptr;
        return ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
    };
    if (m_epoll < 0 || m_wake < 0 || m_timer < 0 || !add(m_wake) || !add(m_timer)) {
        const std::string message = fmt::format("cannot make the I/O loop '{}': {}", name, obr::explainError(errno));
        obr::GlobalErrorHandler::doAbort(__FILE__, __LINE__, __func__, message.c_str());
    }
}

EpollReactor::~EpollReactor()
{
    for (const int descriptor : {m_epoll, m_wake, m_timer}) {
        AtFork::close(descriptor);
    }
}

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
        wake();
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
    auto entry = std::make_unique<Watch>(Watch{descriptor, toEpoll(interest), true, std::move(ready)});
    if (control(EPOLL_CTL_ADD, *entry)) {
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
    if (found == m_watches.end() || found->second->interest == toEpoll(interest)) {
        return;
    }
    found->second->interest = toEpoll(interest);
    static_cast<void>(control(EPOLL_CTL_MOD, *found->second));
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
    static_cast<void>(control(EPOLL_CTL_DEL, *found->second));
    m_unwatched.push_back(std::move(found->second));
    m_watches.erase(found);
}

/// A refusal for want of memory or watches is the kernel's word; the others are misuse.
bool EpollReactor::control(int operation, Watch& watch) const
{
    epoll_event event{};
    event.events = watch.interest;
    event.data.ptr = &watch;
    if (::epoll_ctl(m_epoll, operation, watch.descriptor, &event) == 0) {
        return false;
    }
    const int error = errno;
    const std::string message = fmt::format("the loop '{}' cannot watch descriptor {}: {}", m_thread.loopName(),
                                            watch.descriptor, std::system_category().message(error));
    if (error != ENOMEM && error != ENOSPC) {
        obr::GlobalErrorHandler::doAssert(false, "epoll_ctl(...) == 0", __FILE__, __LINE__, __func__, message.c_str());
    }
    return obr::ErrorOutput(__FILE__, __LINE__, true)(obr::errors::Error, obr::errors::TEXT, message);
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
    wake();
}

void EpollReactor::wake() const noexcept
{
    const std::uint64_t one = 1;
    while (::write(m_wake, &one, sizeof one) < 0 && errno == EINTR) {
    }
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
    std::array<epoll_event, 64> events;
    setTimer();
    const bool hasWork = isAnythingPosted();
    const int timeout = hasWork || !m_turnEnd.empty() ? 0 : -1;
    const int count = ::epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), timeout);
    m_isAsleep.store(false, std::memory_order_relaxed); // late is a needless wake; what was posted the lock shows
    m_callbackTimer.start();

    const Woken woken = dispatch(events.data(), count);
    if (woken.byTimer) {
        m_timerSetTo = NEVER;
        runDueTimers();
    }
    const bool isLast = (hasWork || woken.byPost) && runPosted();
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

/// What it is set to for a timer that was cancelled stays: one turn for nothing.
void EpollReactor::setTimer()
{
    const TimeNs next = m_timers.next();
    if (next < m_timerSetTo) {
        m_timerSetTo = next;
        const TimeNs when = std::max<TimeNs>(next, 1); // 0 would mean none
        const itimerspec time{{}, {static_cast<time_t>(when / SECOND), static_cast<long>(when % SECOND)}};
        ::timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &time, nullptr);
    }
}

EpollReactor::Woken EpollReactor::dispatch(const epoll_event* events, int count)
{
    Woken woken;
    for (int i = 0; i < count; ++i) {
        void* const whom = events[i].data.ptr;
        if (whom == nullptr) {
            woken.byPost = true;
        } else if (whom == &m_timer) {
            woken.byTimer = true;
        } else if (auto* const watch = static_cast<Watch*>(whom); watch->isWatched) {
            call([watch, readiness = toReadiness(events[i].events)] { watch->ready(readiness); });
        }
    }
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
