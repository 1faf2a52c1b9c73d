#ifndef COMM_PROCESSORWAIT_H
#define COMM_PROCESSORWAIT_H

#include <comm/Clock.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace comm {

/// How long a thread that could run had no processor, as the kernel counts it. On a machine that has too much to do
/// this tells a callback that takes long from one that is not let run. Its thread alone, but for `sinceAnew`.
class ProcessorWait {
public:
    /// Begins to count anew when it has not for a second: reading costs as much as a call between processes. `now` is
    /// of the monotonic clock.
    void refresh(TimeNs now)
    {
        if (now - m_refreshed >= SECOND) {
            m_thread.store(::gettid(), std::memory_order_relaxed);
            beginAnew(now);
        }
    }

    /// Since `refresh` began to count, so it may be more than since something later. Begins anew. 0 where the kernel
    /// does not tell.
    TimeNs sinceRefresh(TimeNs now)
    {
        const TimeNs waited = sinceAnew();
        beginAnew(now);
        return waited;
    }

    /// Since it last began anew. Any thread: for texts only, so it is in order with nothing.
    TimeNs sinceAnew() const { return std::max<TimeNs>(read() - m_waited.load(std::memory_order_relaxed), 0); }

private:
    void beginAnew(TimeNs now)
    {
        m_refreshed = now;
        m_waited.store(read(), std::memory_order_relaxed);
    }

    TimeNs read() const
    {
        char name[64];
        std::snprintf(name, sizeof name, "/proc/self/task/%d/schedstat", m_thread.load(std::memory_order_relaxed));
        const int file = ::open(name, O_RDONLY | O_CLOEXEC);
        if (file < 0) {
            return 0;
        }
        char text[96];
        const ssize_t size = ::read(file, text, sizeof text);
        ::close(file);
        const std::string_view fields(text, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        const std::size_t second = fields.find(' ') + 1; // after the time that it ran
        TimeNs waited = 0;
        std::from_chars(fields.data() + second, fields.data() + fields.size(), waited);
        return waited;
    }

    std::atomic<int> m_thread{0}; ///< as the kernel numbers it; 0 before the first `refresh`
    TimeNs m_refreshed = 0;
    std::atomic<TimeNs> m_waited{0};
};

} // namespace comm

#endif
