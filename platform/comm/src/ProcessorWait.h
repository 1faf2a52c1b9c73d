#ifndef COMM_PROCESSORWAIT_H
#define COMM_PROCESSORWAIT_H

#include <comm/Clock.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace comm {

/// How long a thread that could run had no processor, as the kernel counts it. On a machine that has too much to do
/// this tells a callback that takes long from one that is not let run. Its thread alone.
class ProcessorWait {
public:
    /// Begins to count anew when it has not for a second: reading costs as much as a call between processes. `now` is
    /// of the monotonic clock.
    void refresh(TimeNs now)
    {
        if (now - m_refreshed >= SECOND) {
            m_refreshed = now;
            m_waited = read();
        }
    }

    /// Since `refresh` began to count, so it may be more than since something later. Begins anew. 0 where the kernel
    /// does not tell.
    TimeNs sinceRefresh(TimeNs now)
    {
        const TimeNs before = m_waited;
        m_refreshed = now;
        m_waited = read();
        return std::max<TimeNs>(m_waited - before, 0);
    }

private:
    static TimeNs read()
    {
        const int file = ::open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
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

    TimeNs m_refreshed = 0;
    TimeNs m_waited = 0;
};

} // namespace comm

#endif
