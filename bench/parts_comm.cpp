// Run loops against what they are made of: the I/O loop against bare epoll, the active object against a bare queue of a
// mutex and a condition variable. CPU times, so that a busy machine changes little.
//     kesa_bench_parts_comm [rounds]
#include "Comparison.h"
#include "clocks.h"
#include "require.h"

#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/Reactor.h>
#include <comm/Scheduler.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

namespace {

using bench::require;

/// A socket pair that makes itself ready again: whoever is woken reads a byte and sends the next.
class SelfFeeder {
public:
    SelfFeeder()
    {
        require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, m_ends) == 0, "socketpair");
        send();
    }
    ~SelfFeeder()
    {
        ::close(m_ends[0]);
        ::close(m_ends[1]);
    }
    int descriptor() const noexcept { return m_ends[0]; }
    void pass() const
    {
        char byte = 0;
        require(::read(m_ends[0], &byte, 1) == 1 && byte == 'x', "the byte");
        send();
    }

private:
    void send() const { require(::write(m_ends[1], "x", 1) == 1, "write"); }
    int m_ends[2] = {-1, -1};
};

constexpr int WAKE_UPS = 100'000;

double bareWakeUp()
{
    const SelfFeeder feeder;
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    require(::epoll_ctl(epoll, EPOLL_CTL_ADD, feeder.descriptor(), &event) == 0, "epoll_ctl");
    std::int64_t used = 0;
    // In a thread of its own, as the reactor's: system calls on descriptors cost more in a process of several threads.
    std::thread loop([&] {
        const std::int64_t start = bench::threadCpuNs();
        for (int i = 0; i < WAKE_UPS; ++i) {
            epoll_event events[64];
            require(::epoll_wait(epoll, events, 64, -1) == 1, "epoll_wait");
            feeder.pass();
        }
        used = bench::threadCpuNs() - start;
    });
    loop.join();
    ::close(epoll);
    return static_cast<double>(used) / WAKE_UPS;
}

double reactorWakeUp(bool withTimer)
{
    const SelfFeeder feeder;
    const auto loop = comm::Scheduler::current().makeReactor("bench-io");
    int left = WAKE_UPS;
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::mutex mutex;
    comm::Condition ended;
    loop->post([&] {
        if (withTimer) {
            loop->startTimer(comm::now() + 3600 * comm::SECOND, [] {});
        }
        start = bench::threadCpuNs();
        loop->watch(feeder.descriptor(), comm::Reactor::eREADABLE, [&](unsigned) {
            if (left == 0) {
                return;
            }
            feeder.pass();
            if (--left == 0) {
                const std::lock_guard lock(mutex);
                end = bench::threadCpuNs();
                ended.notifyAll();
            }
        });
    });
    {
        std::unique_lock lock(mutex);
        comm::waitFor(ended, lock, [&end] { return end != 0; });
    }
    loop->stop();
    return static_cast<double>(end - start) / WAKE_UPS;
}

constexpr int EVENTS = 102'400;

class CountingEvent final : public comm::ActiveObjectEvent {
public:
    CountingEvent(std::int64_t& count, std::binary_semaphore* done) : m_count(count), m_done(done) {}
    int execute() override
    {
        ++m_count;
        if (m_done != nullptr) {
            m_done->release();
        }
        return 0;
    }
    bool isType(const comm::EventType& type) const override { return type == TYPE; }

private:
    static inline const comm::EventType TYPE{};
    std::int64_t& m_count;
    std::binary_semaphore* m_done;
};

using Event = std::shared_ptr<comm::ActiveObjectEvent>;

/// The plain way: one lock and one notice per event, on both sides.
class BareQueue {
public:
    ~BareQueue() { stop(); }
    void enque(Event event)
    {
        {
            const std::lock_guard lock(m_mutex);
            m_queue.push_back(std::move(event));
        }
        m_filled.notify_one();
    }
    void stop()
    {
        if (m_thread.joinable()) {
            enque(nullptr);
            m_thread.join();
        }
    }

private:
    void run()
    {
        for (;;) {
            std::unique_lock lock(m_mutex);
            m_filled.wait(lock, [this] { return !m_queue.empty(); });
            const Event event = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            if (event == nullptr) {
                return;
            }
            event->execute();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::deque<Event> m_queue;
    std::thread m_thread{[this] { run(); }};
};

/// CPU time of all threads for each event. With a burst, the producer waits for the end of each before the next.
template <class Queue>
double eventsThrough(Queue& queue, int producers, int burst)
{
    std::int64_t count = 0;
    const std::int64_t start = bench::processCpuNs();
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&queue, &count, producers, burst] {
            std::binary_semaphore done(0);
            for (int i = 1; i <= EVENTS / producers; ++i) {
                const bool isLast = i % burst == 0;
                queue.enque(std::make_shared<CountingEvent>(count, isLast ? &done : nullptr));
                if (isLast) {
                    done.acquire();
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    queue.stop();
    const std::int64_t end = bench::processCpuNs();
    require(count == EVENTS, "number of events");
    return static_cast<double>(end - start) / EVENTS;
}

double bareEvents(int producers, int burst)
{
    BareQueue queue;
    return eventsThrough(queue, producers, burst);
}

double activeObjectEvents(int producers, int burst)
{
    comm::ActiveObject object("bench.m_loop");
    return eventsThrough(object, producers, burst);
}

} // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 15;
    bench::compare("wake-up by a descriptor (thread CPU)", {"bare epoll", bareWakeUp},
                   {"Reactor", [] { return reactorWakeUp(false); }}, rounds);
    bench::compare("wake-up while a timer is pending", {"bare epoll", bareWakeUp},
                   {"Reactor", [] { return reactorWakeUp(true); }}, rounds);
    struct Case {
        const char* what;
        int producers;
        int burst;
    };
    for (const auto& [what, producers, burst] :
         {Case{"event, bursts of 1 (CPU of all threads)", 1, 1}, Case{"event, bursts of 16", 1, 16},
          Case{"event, bursts of 256", 1, 256}, Case{"event, two producers, bursts of 256", 2, 256},
          Case{"event, all in one burst", 1, EVENTS}}) {
        bench::compare(what, {"bare queue", [p = producers, b = burst] { return bareEvents(p, b); }},
                       {"ActiveObject", [p = producers, b = burst] { return activeObjectEvents(p, b); }}, rounds);
    }
    return 0;
}
