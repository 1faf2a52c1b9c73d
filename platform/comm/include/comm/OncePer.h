#ifndef COMM_ONCEPER_H
#define COMM_ONCEPER_H

#include <comm/Clock.h>

#include <optional>
#include <string>
#include <utility>

namespace comm {

/// Thins out traces of what may come again and again: a line at once, then one in a `pause`. One thread at a time.
class OncePer {
public:
    explicit OncePer(TimeNs pause) noexcept : m_pause(pause) {}

    /// What ends the line: empty, or "; and N more since the last such line". None: no line now.
    std::optional<std::string> pass(TimeNs now)
    {
        if (!isDue(now)) {
            ++m_missed;
            return std::nullopt;
        }
        m_next = now + m_pause;
        const unsigned missed = std::exchange(m_missed, 0U);
        return missed == 0 ? "" : "; and " + std::to_string(missed) + " more since the last such line";
    }
    /// Whether a line would pass now.
    bool isDue(TimeNs now) const noexcept { return now >= m_next; }

private:
    TimeNs m_pause;
    TimeNs m_next = 0;
    unsigned m_missed = 0;
};

} // namespace comm

#endif
