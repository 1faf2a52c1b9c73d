#ifndef COMM_TESTS_SUPPORT_H
#define COMM_TESTS_SUPPORT_H

#include <AssertionRecorder.h>
#include <comm/ActiveObject.h>
#include <comm/Condition.h>
#include <comm/Reactor.h>

#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace comm::test {

using kesa::test::AssertionRecorder;

/// Runs a function; tells at its end.
class FunctionEvent final : public ActiveObjectEvent {
public:
    explicit FunctionEvent(std::function<void()> work, std::function<void()> atEnd = nullptr)
        : m_work(std::move(work)), m_atEnd(std::move(atEnd))
    {}
    ~FunctionEvent() override
    {
        if (m_atEnd) {
            m_atEnd();
        }
    }
    int execute() override
    {
        m_work();
        return 0;
    }
    bool isType(const EventType& type) const override { return type == TYPE; }

private:
    static inline const EventType TYPE{};
    std::function<void()> m_work;
    std::function<void()> m_atEnd;
};

inline void post(ActiveObject& object, std::function<void()> work, std::function<void()> atEnd = nullptr)
{
    object.enque(std::make_shared<FunctionEvent>(std::move(work), std::move(atEnd)));
}

/// Lets a test wait for what another thread does.
class Signal {
public:
    void raise(int by = 1)
    {
        const std::lock_guard lock(m_mutex); // also for the notice: who waits may destroy this next
        m_count += by;
        m_changed.notifyAll();
    }
    void await(int count = 1)
    {
        std::unique_lock lock(m_mutex);
        waitFor(m_changed, lock, [this, count] { return m_count >= count; });
    }

private:
    std::mutex m_mutex;
    Condition m_changed;
    int m_count = 0;
};

/// Runs `work` on the loop and waits until it is done.
inline void runOn(Reactor& loop, std::function<void()> work)
{
    const auto done = std::make_shared<Signal>();
    loop.post([work = std::move(work), done] {
        work();
        done->raise();
    });
    done->await();
}

/// Keeps the thread busy for longer than `Reactor::LONG_CALLBACK`, by what the processor has done for it: so also where
/// the machine has little time for it.
inline void workLong()
{
    const auto ran = [] {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return time.tv_sec * SECOND + time.tv_nsec;
    };
    const TimeNs end = ran() + Reactor::LONG_CALLBACK + 20 * MILLISECOND;
    while (ran() < end) {
    }
}

} // namespace comm::test

#endif
