#ifndef COMM_ONCEPERSECOND_H
#define COMM_ONCEPERSECOND_H

#include <comm/Clock.h>

#include <optional>
#include <string>
#include <utility>

namespace comm {

/// Thins out traces of what may come again and again: one in a second. One thread at a time.
class OncePerSecond {
public:
    /// What ends the line: empty, or "; and N more since the last such line". None: no line now.
    std::optional<std::string> pass(TimeNs now)
    {
        if (now < m_next) {
            ++m_missed;
            return std::nullopt;
        }
        m_next = now + SECOND;
        const unsigned missed = std::exchange(m_missed, 0U);
        return missed == 0 ? "" : "; and " + std::to_string(missed) + " more since the last such line";
    }

private:
    TimeNs m_next = 0;
    unsigned m_missed = 0;
};

} // namespace comm

#endif
